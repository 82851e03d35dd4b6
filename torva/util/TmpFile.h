// A temporary file next to the file that it will replace. The sequence: create, write as to
// any stream, commit(), setAutoclean(true) until the rename has succeeded, rename path()
// over the target, setAutoclean(false). Scratch files are torva/util/AutocleanOFStream.h.
#pragma once

#include <ext/stdio_filebuf.h>
#include <ostream>
#include <string>

namespace torva {

/// The file itself, created with mkstemp(3).
class TmpFileBase {
public:
    /// \param prefix  path of the file without its last six characters
    /// \throws SystemError  "mkstemp() failed: ", or ExSystemError for the errno; nothing
    ///         was created
    explicit TmpFileBase(const std::string& prefix);
    TmpFileBase(const TmpFileBase&) = delete;
    TmpFileBase& operator=(const TmpFileBase&) = delete;

protected:
    ~TmpFileBase() = default;

    std::string path; ///< the file that was created
    int fd;           ///< open descriptor, close-on-exec; owned by TmpFile's buffer
};

/// The same as a stream.
class TmpFile : private TmpFileBase, public std::ostream {
public:
    /// Creates the file, mode 0600, and opens the stream on it.
    ///
    /// \param prefix     see TmpFileBase
    /// \param autoclean  true: the destructor removes the file
    /// \throws as TmpFileBase; no file is left
    explicit TmpFile(const std::string& prefix, bool autoclean = true);

    /// Removes the file if autoclean() is set, and closes it. If removing it fails, writes
    /// one line to std::cerr, "TmpFile autoclean failed: " and the reason.
    ~TmpFile() override;

    /// The name of the file, for rename(2) and for external commands.
    const std::string& path() const { return TmpFileBase::path; }

    /// The file itself, for fchmod(2), fchown(2) and fstat(2): if another account may write
    /// the directory, its name may belong to another file. Close-on-exec and above 2; owned
    /// by the stream; -1 once commit() has closed it.
    int descriptor() const { return buffer_.is_open() ? fd : -1; }

    /// Whether the destructor removes the file.
    void setAutoclean(bool autoclean) { autoclean_ = autoclean; }
    bool autoclean() const { return autoclean_; }

    /// Makes the file complete and durable: flushes, syncs (fsync(2)) and closes it, and
    /// sets autoclean() to false: the file then belongs to the caller.
    ///
    /// \throws SystemError "write" when anything written to the stream did not reach the
    ///         file, with the errno of the first failing write; "fsync"; "close".
    ///         autoclean() is unchanged then
    /// \throws SystemError "write" with EBADF when an earlier call has closed the file
    void commit();

private:
    /// Remembers why the first failing write failed: later operations would hide it.
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
