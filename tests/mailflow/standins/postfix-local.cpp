// postfix-local -f SENDER -d RECIPIENT -p DIR: stands in for the panel's delivery
// program.
//
// Started by pipe(8), with the message on standard input; delivers it to the maildir
// DIR/DOMAIN/NAME/Maildir of the RECIPIENT NAME@DOMAIN, which is made when it is
// missing. Exit status as sysexits(3) says and pipe(8) reads it: 0 delivered, 75
// try again, anything else sends the message back.
#include "Complain.h"

#include <array>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

using torva::mailflow::complain;

namespace {

/// Whether a part of an address may be the name of a directory.
bool namesDirectory(const std::string& part) {
    return !part.empty() && part[0] != '.' && part.find('/') == std::string::npos;
}

/// Makes PATH and what is missing above it, mode 0700 less the umask.
bool makeDirectories(const std::string& path) {
    for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        if (mkdir(path.substr(0, slash).c_str(), 0700) != 0 && errno != EEXIST) {
            return false;
        }
        if (slash == std::string::npos) {
            return true;
        }
    }
}

/// Copies standard input to its end.
bool copyInput(int file) {
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t size = read(STDIN_FILENO, buffer.data(), buffer.size());
        if (size == 0) {
            return true;
        }
        for (ssize_t done = 0; done < size;) {
            const ssize_t more =
                write(file, buffer.data() + done, static_cast<std::size_t>(size - done));
            if (more < 0) {
                return false;
            }
            done += more;
        }
        if (size < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool syncDirectory(const std::string& path) {
    const int directory = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool synced = directory >= 0 && fsync(directory) == 0;
    if (directory >= 0) {
        close(directory);
    }
    return synced;
}

/// A name that no other delivery uses: this process's at this nanosecond.
std::string uniqueName() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::to_string(now.tv_sec) + ".N" + std::to_string(now.tv_nsec) + "P" +
           std::to_string(getpid()) + ".standin";
}

/// Writes the message to "tmp" and, once it is on disk, moves it to "new".
bool deliver(const std::string& maildir) {
    const std::string name = uniqueName();
    const std::string scratch = maildir + "/tmp/" + name;
    const int file = open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0) {
        return false;
    }
    bool written = copyInput(file) && fsync(file) == 0;
    written = close(file) == 0 && written;
    if (!written || rename(scratch.c_str(), (maildir + "/new/" + name).c_str()) != 0) {
        const int error = errno;
        unlink(scratch.c_str());
        errno = error;
        return false;
    }
    return syncDirectory(maildir + "/new");
}

} // namespace

int main(int argc, char** argv) {
    std::string sender;
    std::string recipient;
    std::string base;
    for (int option = 0; (option = getopt(argc, argv, "f:d:p:")) != -1;) {
        switch (option) {
        case 'f':
            sender = optarg;
            break;
        case 'd':
            recipient = optarg;
            break;
        case 'p':
            base = optarg;
            break;
        default:
            return EX_USAGE;
        }
    }
    if (optind != argc || sender.empty() || recipient.empty() || base.empty()) {
        std::cerr << "usage: postfix-local -f SENDER -d RECIPIENT -p DIR\n";
        return EX_USAGE;
    }
    const std::size_t at = recipient.rfind('@');
    const std::string name = recipient.substr(0, at);
    const std::string domain = at == std::string::npos ? "" : recipient.substr(at + 1);
    if (!namesDirectory(name) || !namesDirectory(domain)) {
        std::cerr << recipient << ": no mailbox address\n";
        return EX_NOUSER;
    }
    const std::string maildir = base + "/" + domain + "/" + name + "/Maildir";
    for (const char* part : {"/tmp", "/new", "/cur"}) {
        if (!makeDirectories(maildir + part)) {
            return complain(maildir + part, EX_TEMPFAIL);
        }
    }
    return deliver(maildir) ? EX_OK : complain(maildir, EX_TEMPFAIL);
}
