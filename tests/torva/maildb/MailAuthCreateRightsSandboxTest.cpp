// Who may create a mail-authentication database, and what that changes in the process.
#include "torva/libc/Child.h"
#include "torva/libc/SyscallFault.h"
#include "torva/maildb/BoundedChild.h"
#include "torva/maildb/CreateFixture.h"
#include "torva/maildb/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

/// A database with a record, as whole text.
std::string existing_database() {
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_EQ(0, mail_auth_add_domain(MAIL_SERVER_POSTFIX, "example.com", 0));
    return read_file(auth_path);
}

TEST_F(CreateAuthDatabase, AMissingPostfixUserIsReportedAndLeavesTheOldDatabase) {
    const std::string before = existing_database();
    const std::string users = read_file("/etc/passwd");
    std::string others = users;
    const std::size_t at = others.find("postfix:");
    ASSERT_NE(std::string::npos, at);
    others.erase(at, others.find('\n', at) + 1 - at);
    write_file("/etc/passwd", others);
    EXPECT_EQ(-1, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    write_file("/etc/passwd", users);
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine(2, "Unable to get user id for \"postfix\": Success")));
    EXPECT_EQ(before, read_file(auth_path));
}

/// Creates the database in a process without some rights, and returns its messages.
std::vector<LogLine> create_after(const std::function<void()>& give_up) {
    int ends[2];
    EXPECT_EQ(0, pipe(ends));
    const pid_t child = fork();
    if (child == 0) {
        const CapturedLog unused;
        CapturedLog log;
        give_up();
        const int result = mail_auth_create_db(MAIL_SERVER_POSTFIX);
        for (const LogLine& line : log.take()) {
            const std::string text = static_cast<char>('0' + line.first) + line.second + "\n";
            (void)!write(ends[1], text.data(), text.size());
        }
        _exit(result == -1 ? 0 : 1);
    }
    close(ends[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t count = 0; (count = read(ends[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    std::vector<LogLine> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start);
        lines.emplace_back(text[start] - '0', text.substr(start + 1, end - start - 1));
        start = end + 1;
    }
    return lines;
}

std::vector<LogLine> create_without(int capability) {
    return create_after([=] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2]{};
        syscall(SYS_capget, &header, data);
        data[0].effective &= ~(1U << static_cast<unsigned>(capability));
        syscall(SYS_capset, &header, data);
    });
}

std::string chown_message() {
    return std::string("chown(\"") + auth_directory_path + "\", " +
           std::to_string(getpwnam("postfix")->pw_uid) + ", 0) failed: Operation not permitted";
}

TEST_F(CreateAuthDatabase, AnOwnerThatCannotBeSetIsReportedAndLeavesTheOldDatabase) {
    const std::string before = existing_database();
    EXPECT_THAT(create_without(CAP_CHOWN), ElementsAre(LogLine(2, chown_message())));
    EXPECT_EQ(before, read_file(auth_path));
}

TEST_F(CreateAuthDatabase, AModeThatCannotBeSetIsReportedAndLeavesTheOldDatabase) {
    const std::string before = existing_database();
    EXPECT_THAT(create_without(CAP_FOWNER),
                ElementsAre(LogLine(2, std::string("chmod(\"") + auth_directory_path +
                                           "\", 0770) failed: Operation not permitted")));
    EXPECT_EQ(before, read_file(auth_path));
}

TEST_F(CreateAuthDatabase, AFailureToHandOverTheNewDatabaseIsReported) {
    if (inChild([] { return failSyscall(SYS_fchown, EIO) ? 0 : noFilters; }).exited == noFilters) {
        GTEST_SKIP() << "the kernel allows no system call filters";
    }
    const std::string message = chown_message();
    const std::string error = "Input/output error";
    EXPECT_THAT(create_after([] { failSyscall(SYS_fchown, EIO); }),
                ElementsAre(LogLine(2, message.substr(0, message.find("Operation")) + error)));
    EXPECT_THAT(create_after([] { failSyscall(SYS_fchmod, EIO); }),
                ElementsAre(LogLine(2, std::string("chmod(\"") + auth_directory_path +
                                           "\", 0770) failed: " + error)));
}

TEST_F(CreateAuthDatabase, WhoIsNotRootIsRefusedAndLeavesTheOldDatabase) {
    const std::string before = existing_database();
    const passwd* postfix = getpwnam("postfix");
    // The owner of the directory may remove the file, but cannot give its successor to root.
    EXPECT_THAT(create_after([=] { (void)!setuid(postfix->pw_uid); }),
                ElementsAre(LogLine(2, chown_message())));
    EXPECT_EQ(before, read_file(auth_path));
}

TEST_F(CreateAuthDatabase, TheQmailTypeNeedsNoCapability) {
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_QMAIL));
    fs::remove_all("/var/lib/torva");
    fs::create_directories(auth_directory_path);
    const std::string result = bounded([] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2]{};
        syscall(SYS_capset, &header, none);
        return mail_auth_create_db(MAIL_SERVER_QMAIL);
    });
    EXPECT_EQ("0\n", result);
}

/// The process's umask, without setting it.
std::string shown_umask() {
    const std::string status = read_file("/proc/self/status");
    const std::size_t at = status.find("Umask:\t") + 7;
    return status.substr(at, status.find('\n', at) - at);
}

TEST_F(CreateAuthDatabase, TheUmaskOfTheProcessIsNotTouched) {
    umask(027);
    std::vector<std::string> seen;
    {
        const OpenHook hook([&](sqlite3*) { seen.push_back(shown_umask()); });
        EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
        EXPECT_EQ(0, mail_auth_add_domain(MAIL_SERVER_POSTFIX, "example.com", 0));
    }
    EXPECT_THAT(seen, ElementsAre("0027", "0027"));
    EXPECT_EQ(027U, umask(022));
}

TEST_F(CreateAuthDatabase, WithoutStandardStreamsTheDatabaseIsNoneOfThem) {
    EXPECT_EQ("0\n", bounded([] {
                  int wrong = 0;
                  for (const int fd : {0, 1, 2}) {
                      close(fd);
                  }
                  const OpenHook hook([&](sqlite3*) {
                      for (const char* fd : {"0", "1", "2"}) {
                          std::error_code none;
                          const auto open_file =
                              fs::read_symlink(std::string("/proc/self/fd/") + fd, none);
                          wrong += open_file.string().find("torva") == std::string::npos ? 0 : 1;
                      }
                  });
                  return mail_auth_create_db(MAIL_SERVER_POSTFIX) +
                         mail_auth_add_domain(MAIL_SERVER_POSTFIX, "example.com", 0) + wrong;
              }));
}

TEST_F(CreateAuthDatabase, TheFileIsClosedToProgramsThatAreStarted) {
    std::vector<std::string> inherited;
    const OpenHook hook([&](sqlite3*) {
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code none;
            const std::string target = fs::read_symlink(entry, none).string();
            if (target.find("/var/spool/postfix/torva/") == 0 &&
                !is_close_on_exec(std::stoi(entry.path().filename()))) {
                inherited.push_back(target);
            }
        }
    });
    EXPECT_EQ(0, mail_auth_create_db(MAIL_SERVER_POSTFIX));
    EXPECT_THAT(inherited, IsEmpty());
}

} // namespace
