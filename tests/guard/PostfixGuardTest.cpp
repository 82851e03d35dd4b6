#include "support/PostfixGuard.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using torva::test::takePostfixAttempts;

namespace {

// Should the guard be broken, this only prints a number.
char postconf[] = "/usr/sbin/postconf";
char dashH[] = "-h";
char parameter[] = "mail_version";
char* const arguments[] = {postconf, dashH, parameter, nullptr};

/// The status of a forked child: 0 when the call was refused with EACCES.
int inForkedChild(const std::function<int()>& call) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(call() == -1 && errno == EACCES ? 0 : 1);
    }
    int status = -1;
    ::waitpid(pid, &status, 0);
    return status;
}

class PostfixGuardTest : public testing::Test {
protected:
    void SetUp() override {
        if (std::getenv("TORVA_SANDBOX") != nullptr) {
            GTEST_SKIP() << "in the sandbox, Postfix is a private copy";
        }
    }
    ~PostfixGuardTest() override { std::filesystem::remove_all(directory_); }

    std::string directory() {
        if (directory_.empty()) {
            directory_ = testing::TempDir() + "guard-XXXXXX";
            EXPECT_NE(::mkdtemp(directory_.data()), nullptr);
        }
        return directory_;
    }

    std::string directory_;
};

} // namespace

TEST_F(PostfixGuardTest, EachCallThatStartsAProgramIsRefused) {
    const std::pair<const char*, std::function<int()>> calls[] = {
        {"execve", [] { return ::execve(postconf, arguments, environ); }},
        {"execv", [] { return ::execv(postconf, arguments); }},
        {"execvp", [] { return ::execvp(postconf, arguments); }},
        {"execvpe", [] { return ::execvpe(postconf, arguments, environ); }},
        {"execl", [] { return ::execl(postconf, postconf, dashH, parameter, nullptr); }},
        {"execlp", [] { return ::execlp(postconf, postconf, dashH, parameter, nullptr); }},
    };
    for (const auto& [name, call] : calls) {
        EXPECT_EQ(inForkedChild(call), 0) << name;
        EXPECT_EQ(takePostfixAttempts(), "/usr/sbin/postconf\n") << name;
    }
}

TEST_F(PostfixGuardTest, SpawningIsRefused) {
    pid_t pid = -1;
    EXPECT_EQ(::posix_spawn(&pid, postconf, nullptr, nullptr, arguments, environ), EACCES);
    EXPECT_EQ(::posix_spawnp(&pid, postconf, nullptr, nullptr, arguments, environ), EACCES);
    EXPECT_EQ(pid, -1);
    EXPECT_EQ(takePostfixAttempts(), "/usr/sbin/postconf\n/usr/sbin/postconf\n");
}

TEST_F(PostfixGuardTest, AShellCommandWithAProgramOfPostfixIsRefused) {
    for (const char* command :
         {"/usr/sbin/postconf -h mail_version", "true && /usr/sbin/postconf -h x",
          "exec '/usr/sbin/postconf' -h x"}) {
        EXPECT_EQ(std::system(command), -1) << command;
        EXPECT_EQ(::popen(command, "re"), nullptr) << command;
        EXPECT_EQ(takePostfixAttempts(), command + std::string("\n") + command + "\n");
    }
}

TEST_F(PostfixGuardTest, AProgramThatIsNotInstalledIsRefusedToo) {
    char missing[] = "/usr/sbin/post-no-such-program";
    char* const words[] = {missing, nullptr};
    EXPECT_EQ(inForkedChild([&] { return ::execv(missing, words); }), 0);
    EXPECT_EQ(takePostfixAttempts(), "/usr/sbin/post-no-such-program\n");
}

TEST_F(PostfixGuardTest, NeitherALinkNorASearchPathNorADescriptorLeadsRound) {
    if (::access(postconf, X_OK) != 0) {
        GTEST_SKIP() << "Postfix is not installed";
    }
    std::string link = directory() + "/harmless";
    std::filesystem::create_symlink(postconf, link);
    char* const words[] = {link.data(), dashH, parameter, nullptr};
    EXPECT_EQ(inForkedChild([&] { return ::execv(link.c_str(), words); }), 0);
    EXPECT_EQ(inForkedChild([&] { return ::execv("/usr/bin/../sbin/postconf", words); }), 0);
    EXPECT_EQ(inForkedChild([&] {
                  ::setenv("PATH", "/nowhere:/usr/sbin:/usr/bin", 1);
                  return ::execvp("postconf", words);
              }),
              0);
    EXPECT_EQ(inForkedChild([&] {
                  return ::fexecve(::open(postconf, O_RDONLY | O_CLOEXEC), words, environ);
              }),
              0);
    EXPECT_NE(takePostfixAttempts(), "");
}

TEST_F(PostfixGuardTest, OtherProgramsStart) {
    const std::string fake = directory() + "/postconf";
    std::filesystem::create_symlink("/bin/true", fake);
    EXPECT_EQ(std::system(fake.c_str()), 0);
    EXPECT_EQ(std::system("echo /usr/share/postfix >/dev/null"), 0);
    EXPECT_EQ(inForkedChild([] { return ::execl("/bin/false", "false", nullptr); }), 1 << 8);
    EXPECT_EQ(takePostfixAttempts(), "");
}

TEST_F(PostfixGuardTest, TheTestWithTheAttemptFails) {
    const char again[] = "TORVA_GUARD_ATTEMPT";
    if (std::getenv(again) != nullptr) {
        inForkedChild([] { return ::execv(postconf, arguments); });
        return;
    }
    const std::string name = "PostfixGuardTest.TheTestWithTheAttemptFails";
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
    const std::string command = std::string(again) + "=1 GTEST_OUTPUT= '" + program +
                                "' --gtest_brief=1 --gtest_filter=" + name;
    std::FILE* pipe = ::popen(command.c_str(), "re");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
        output += static_cast<char>(c);
    }
    const int status = ::pclose(pipe);
    EXPECT_EQ(WEXITSTATUS(status), 1) << output;
    EXPECT_THAT(output, testing::HasSubstr(name + ": attempt to start the machine's own Postfix:\n"
                                                  "/usr/sbin/postconf\n"));
}
