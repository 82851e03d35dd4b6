// A temporary file beside the file that it will replace. The sequence: create,
// write as to any stream, commit(), setAutoclean(true) for as long as the rename
// may fail, rename path() over the target, setAutoclean(false). Files that are
// only scratch are torva/util/AutocleanOFStream.h.
#pragma once

#include <ext/stdio_filebuf.h>
#include <ostream>
#include <string>

namespace torva {

/// The file itself, made with mkstemp(3).
class TmpFileBase {
public:
    /// \param prefix  path of the file but for six characters at its end
    /// \throws SystemError by errno, "mkstemp() failed: "; nothing was created
    explicit TmpFileBase(const std::string& prefix);
    TmpFileBase(const TmpFileBase&) = delete;
    TmpFileBase& operator=(const TmpFileBase&) = delete;

protected:
    ~TmpFileBase() = default;

    std::string path; ///< the file actually created
    int fd;           ///< open descriptor, close-on-exec; owned by TmpFile's buffer
};

/// The same as a stream.
class TmpFile : private TmpFileBase, public std::ostream {
public:
    /// Creates the file, mode 0600, and opens the stream on it.
    ///
    /// \param prefix     see TmpFileBase
    /// \param autoclean  true: the destructor removes the file
    /// \throws as TmpFileBase; nothing is left behind
    explicit TmpFile(const std::string& prefix, bool autoclean = true);

    /// Removes the file when asked to, and closes it. A failing removal is one
    /// line on std::cerr, "TmpFile autoclean failed: " and the reason.
    ~TmpFile() override;

    /// The file, for rename(2) and for external commands.
    const std::string& path() const { return TmpFileBase::path; }

    /// The file itself, for fchmod(2), fchown(2) and fstat(2): its name may stand for
    /// another file where somebody else may write the directory. Close-on-exec and
    /// above 2; owned by the stream; -1 once commit() has closed it.
    int descriptor() const { return buffer_.is_open() ? fd : -1; }

    /// Whether the destructor removes the file.
    void setAutoclean(bool autoclean) { autoclean_ = autoclean; }
    bool autoclean() const { return autoclean_; }

    /// Makes the file whole and durable: flushes, fsync(2), closes, and turns the
    /// clean-up off: from here on the file is the caller's.
    ///
    /// \throws SystemError "write" when anything written to the stream did not
    ///         reach the file, with the errno of the first failing write; "fsync"
    ///         or "close"; the clean-up is still on then. "write" with EBADF when
    ///         the file is closed by an earlier call
    void commit();

private:
    /// Remembers why the first failing write failed: what is written later, or
    /// done before commit(), would hide it.
    class Buffer : public __gnu_cxx::stdio_filebuf<char> {
    public:
        Buffer() = default;
        explicit Buffer(int fd) : Base(fd, std::ios_base::out) {}

        /// errno value of the first failing write; 0 when there was none.
        int error() const { return error_; }

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* text, std::streamsize size) override;
        int sync() override;

    private:
        using Base = __gnu_cxx::stdio_filebuf<char>;

        void note(bool written);

        int error_ = 0;
    };

    Buffer buffer_;
    bool autoclean_;
};

} // namespace torva
