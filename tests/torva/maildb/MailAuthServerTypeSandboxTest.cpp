#include "torva/maildb/mail_auth.h"

#include "torva/maildb/CapturedLog.h"
#include "torva/maildb/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace torva::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* panel_root = "/usr/local/kra"; // the default without a configuration file
constexpr const char* panel_conf = "/etc/kra/kra.conf";
constexpr const char* undetermined =
    "Unable to determine mail server type from ``mtactl --features''";

class ServerType : public testing::Test {
protected:
    ServerType() { std::filesystem::remove(panel_conf); }
    ~ServerType() override { std::filesystem::remove_all(panel_root); }

    /// Replaces the panel's mail tool by a shell script.
    static void install(const std::string& script) {
        const std::string directory = std::string(panel_root) + "/admin/sbin";
        std::filesystem::create_directories(directory);
        write_file(directory + "/mtactl", "#!/bin/sh\n" + script);
        chmod((directory + "/mtactl").c_str(), 0755);
    }

    /// The messages but for the reports that there is no configuration file.
    std::vector<LogLine> messages() {
        std::vector<LogLine> kept;
        for (const LogLine& line : log.take()) {
            if (line.first != 12) {
                kept.push_back(line);
            }
        }
        return kept;
    }

    CapturedLog log;
};

TEST_F(ServerType, AValueInDoubleQuotesIsAcceptedLikeOneInSingleQuotes) {
    install("echo \"\\$features['SMTP_Server'] = 'postfix';\"");
    EXPECT_EQ(MAIL_SERVER_POSTFIX, mail_auth_server_type());
    install("echo \"\\$features['SMTP_Server'] = \\\"postfix\\\";\"");
    EXPECT_EQ(MAIL_SERVER_POSTFIX, mail_auth_server_type());
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(ServerType, AValuePostfixInAnyCaseSelectsThePostfixType) {
    for (const std::string value : {"Postfix", "POSTFIX", "pOSTFIX"}) {
        install("echo \"\\$features['SMTP_Server'] = '" + value + "';\"");
        EXPECT_EQ(MAIL_SERVER_POSTFIX, mail_auth_server_type()) << value;
    }
}

TEST_F(ServerType, TheToolIsAskedForItsFeatures) {
    install("[ \"$*\" = --features ] && echo \"\\$features['SMTP_Server'] = 'qmail';\"");
    EXPECT_EQ(MAIL_SERVER_QMAIL, mail_auth_server_type());
}

TEST_F(ServerType, OtherLinesAreSkippedAndTheFirstTypeCounts) {
    install("cat <<'END'\n"
            "<?php\n"
            "$features['IMAP_Server'] = 'postfix';\n"
            "$features['SMTP_Server'] = nothing;\n"
            "$features['SMTP_Server'] = 'exim';\n"
            "$features['SMTP_Server'] = 'qmail';\n"
            "$features['SMTP_Server'] = 'postfix';\n"
            "END\n");
    EXPECT_EQ(MAIL_SERVER_QMAIL, mail_auth_server_type());
    EXPECT_THAT(
        messages(),
        ElementsAre(LogLine(6, "Unparseable line \"$features['SMTP_Server'] = nothing;\", skipped"),
                    LogLine(6, "Unknown server style \"exim\", skipped")));
}

TEST_F(ServerType, ALastLineWithoutLineFeedCounts) {
    install("printf %s \"\\$features['SMTP_Server'] = 'postfix'\"");
    EXPECT_EQ(MAIL_SERVER_POSTFIX, mail_auth_server_type());
}

TEST_F(ServerType, ALongLineIsReadWhole) {
    install(
        "printf '%0100000d\\n' 0; printf \"\\$features['SMTP_Server'] = %0100000d'postfix'\" 0");
    EXPECT_EQ(MAIL_SERVER_POSTFIX, mail_auth_server_type());
}

TEST_F(ServerType, NoLineThatGivesATypeIsReported) {
    for (const char* script : {"true", "exit 3", "echo nothing of the kind", "kill -9 $$"}) {
        install(script);
        EXPECT_EQ(MAIL_SERVER_UNKNOWN, mail_auth_server_type()) << script;
        EXPECT_THAT(messages(), ElementsAre(LogLine(6, undetermined))) << script;
    }
}

TEST_F(ServerType, AMissingToolIsReported) {
    EXPECT_EQ(MAIL_SERVER_UNKNOWN, mail_auth_server_type());
    EXPECT_THAT(messages(), ElementsAre(LogLine(6, undetermined)));
}

TEST_F(ServerType, NoChildAndNoDescriptorIsLeft) {
    const std::size_t before = descriptor_count();
    install("echo \"\\$features['SMTP_Server'] = 'postfix'\"; yes");
    EXPECT_EQ(MAIL_SERVER_POSTFIX, mail_auth_server_type());
    install("true");
    EXPECT_EQ(MAIL_SERVER_UNKNOWN, mail_auth_server_type());
    EXPECT_EQ(before, descriptor_count());
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

/// Runs a check in a separate process, if it cannot be undone. 0 is good.
int in_a_child(int (*check)(CapturedLog&), CapturedLog& log) {
    const pid_t child = fork();
    if (child == 0) {
        log.take();
        _exit(check(log));
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

TEST_F(ServerType, APathThatDoesNotFitIsReported) {
    std::filesystem::create_directories("/etc/kra");
    write_file(panel_conf, "PRODUCT_ROOT_D /" + std::string(4095, 'x') + "\n");
    EXPECT_EQ(0, in_a_child(
                     [](CapturedLog& child_log) {
                         if (mail_auth_server_type() != MAIL_SERVER_UNKNOWN) {
                             return 1;
                         }
                         return child_log.take() == std::vector<LogLine>{{2, "Unable to form the "
                                                                             "command line of "
                                                                             "mtactl: it is too "
                                                                             "long"}}
                                    ? 0
                                    : 2;
                     },
                     log));
}

TEST_F(ServerType, AShellThatCannotBeStartedIsReported) {
    EXPECT_EQ(0, in_a_child(
                     [](CapturedLog& child_log) {
                         const rlimit none{3, 3};
                         setrlimit(RLIMIT_NOFILE, &none);
                         if (mail_auth_server_type() != MAIL_SERVER_UNKNOWN) {
                             return 1;
                         }
                         const LogLine last = child_log.take().back();
                         return last == LogLine{3, "Unable to run \"/usr/local/kra/admin/sbin/"
                                                   "mtactl --features\": Too many open files"}
                                    ? 0
                                    : 2;
                     },
                     log));
}

} // namespace
