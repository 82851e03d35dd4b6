// The panel's configuration file at its fixed path. What was read is kept for the
// lifetime of the process, so each look-up has its own child.
#include "torva/libc/panel_conf.h"

#include "torva/libc/Child.h"
#include "torva/libc/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

using torva::test::inChild;
using torva::test::openDescriptors;

namespace {

const char path[] = "/etc/kra/kra.conf";

void ignore(int, const char*, ...) {}

void reportToError(int priority, const char* format, ...) {
    std::fprintf(stderr, "%d: ", priority);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    errno = EDOM; // a hook need not keep it
}

class PanelConfSandboxTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("TORVA_SANDBOX"), nullptr) << "outside scripts/sandbox";
        ASSERT_EQ(std::system("rm -rf /etc/kra && mkdir /etc/kra"), 0);
        torva_log = reportToError;
    }
    void TearDown() override { torva_log = previousHook_; }

    static void write(const std::string& text) { std::ofstream(path) << text; }

private:
    decltype(torva_log) previousHook_ = torva_log;
};

const char openFailure[] =
    "12: unable to open configuration file /etc/kra/kra.conf: No such file or directory\n";

} // namespace

TEST_F(PanelConfSandboxTest, WithoutAFileEveryVariableHasItsCompileTimeDefault) {
    const struct {
        const char* name;
        const char* value;
    } variables[] = {
        {"_MIN_POSSIBLE_KRA_CONF_VAR_NAME", "_MIN_POSSIBLE_KRA_CONF_VAR_VALUE"},
        {"TORVA_MAILNAMES_D", "/var/qmail/mailnames"},
        {"COURIER_IMAP_ROOT_D", "/"},
        {"RBLSMTPD", "/usr/sbin/rblsmtpd"},
        {"CGI_PHP_BIN", "dynamic"},
        {"CLIENT_PHP_BIN", "/usr/local/kra/bin/php-cli"},
        {"LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
        {"LIB_SSL_PATH", "/lib/libssl.so"},
        {"AWSTATS_DOC_D", "/usr/share/apache2/icons/awstats"},
        {"AWSTATS_TOOLS_D", "/usr/share/awstats"},
        {"AWSTATS_BIN_D", "/srv/www/cgi-bin/awstats"},
        {"AWSTATS_ETC_D", "/etc/awstats"},
        {"CATALINA_HOME", "/usr/share/tomcat5"},
        {"MAILMAN_VAR_D", "/var/lib/mailman"},
        {"MAILMAN_ROOT_D", "/usr/lib/mailman"},
        {"PGSQL_DATA_D", "/var/lib/pgsql/data"},
        {"PGSQL_BIN_D", "/usr/bin"},
        {"MYSQL_BIN_D", "/usr/bin"},
        {"MYSQL_VAR_D", "/var/lib/mysql"},
        {"LOGROTATE", "/usr/local/kra/logrotate/sbin/logrotate"},
        {"WEB_STAT", "/usr/bin/webalizer"},
        {"DUMP_D", "/var/lib/kra/dumps"},
        {"DUMP_TMP_D", "/tmp"},
        {"NAMED_RUN_ROOT_D", "/var/lib/named"},
        {"FTPD_CONF_INC", "/etc/proftpd.include"},
        {"HTTPD_SERVICE", "apache2"},
        {"HTTPD_LOG_D", "/var/log/apache2"},
        {"HTTPD_INCLUDE_D", "/etc/apache2/conf.d"},
        {"HTTPD_CONF_D", "/etc/apache2"},
        {"HTTPD_VHOSTS_D", "/srv/www/vhosts"},
        {"PRODUCT_ROOT_D", "/usr/local/kra"},
        {"NAMED_OPTIONS_CONF", "/etc/named.conf.include.torva-options"},
        {"NAMED_ZONES_CONF", "/etc/named.conf.include.torva-zones"},
        {"_MAX_POSSIBLE_KRA_CONF_VAR_NAME", "_MAX_POSSIBLE_KRA_CONF_VAR_VALUE"},
    };
    torva_log = ignore;
    ASSERT_EQ(std::size(variables), static_cast<std::size_t>(PANEL_CONF_VARIABLES));
    for (int index = 0; index < PANEL_CONF_VARIABLES; ++index) {
        SCOPED_TRACE(index);
        EXPECT_STREQ(panel_conf_get(index), variables[index].value);
        if (index < PANEL_CONF_VARIABLES - 1) {
            EXPECT_STREQ(panel_conf_get_by_name(variables[index].name), variables[index].value);
        }
    }
}

TEST_F(PanelConfSandboxTest, WithoutAFileEveryLookUpReportsTheFailure) {
    const auto outcome = inChild([] {
        std::puts(panel_conf_get(30));
        std::puts(panel_conf_get(30));
        std::puts(panel_conf_get_by_name("TORVA_MAILNAMES_D"));
        return 0;
    });
    EXPECT_EQ(outcome.out, "/usr/local/kra\n/usr/local/kra\n/var/qmail/mailnames\n");
    EXPECT_EQ(outcome.err, std::string(openFailure) + openFailure + openFailure);
}

TEST_F(PanelConfSandboxTest, AFailedLoadKeepsErrnoAndTheNextTriesAgain) {
    const auto outcome = inChild([] {
        if (panel_conf_load() != -1 || errno != ENOENT) {
            return 1;
        }
        std::ofstream(path) << "PRODUCT_ROOT_D /opt/panel\n";
        if (panel_conf_load() != 0) {
            return 2;
        }
        std::puts(panel_conf_get(PRODUCT_ROOT_D));
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.out, "/opt/panel\n");
    EXPECT_EQ(outcome.err, openFailure);
}

TEST_F(PanelConfSandboxTest, TheValueIsThePathWithoutBlanksAndComment) {
    write("PRODUCT_ROOT_D   /opt/panel   # where the panel is\n");
    const auto outcome = inChild([] {
        std::puts(panel_conf_get(PRODUCT_ROOT_D));
        std::puts(panel_conf_get_by_name("PRODUCT_ROOT_D"));
        std::puts(panel_conf_get(TORVA_MAILNAMES_D)); // not set by the file
        return 0;
    });
    EXPECT_EQ(outcome.out, "/opt/panel\n/opt/panel\n/var/qmail/mailnames\n");
    EXPECT_EQ(outcome.err, "");
}

TEST_F(PanelConfSandboxTest, AnEqualsSignAfterTheNameIsReportedAndTheLineIgnored) {
    write("PRODUCT_ROOT_D=/opt/panel\nTORVA_MAILNAMES_D /m\n");
    const auto outcome = inChild([] {
        std::puts(panel_conf_get(PRODUCT_ROOT_D));
        std::puts(panel_conf_get(TORVA_MAILNAMES_D));
        return 0;
    });
    EXPECT_EQ(outcome.out, "/usr/local/kra\n/m\n");
    EXPECT_EQ(outcome.err, "12: Invalid variable definition PRODUCT_ROOT_D=/opt/panel\n"
                           "Expected a space after variable name\n");
}

TEST_F(PanelConfSandboxTest, ANameAloneIsReportedAsExpectingAValue) {
    write("PRODUCT_ROOT_D\n");
    const auto outcome = inChild([] {
        std::puts(panel_conf_get(PRODUCT_ROOT_D));
        return 0;
    });
    EXPECT_EQ(outcome.out, "/usr/local/kra\n");
    EXPECT_EQ(outcome.err, "12: Invalid variable definition PRODUCT_ROOT_D\nExpected a value");
}

TEST_F(PanelConfSandboxTest, OfTwoLinesForOneNameTheSecondIsAnswered) {
    write("PRODUCT_ROOT_D /first\nOTHER x\nPRODUCT_ROOT_D /second\n");
    const auto outcome = inChild([] {
        std::puts(panel_conf_get(PRODUCT_ROOT_D));
        return 0;
    });
    EXPECT_EQ(outcome.out, "/second\n");
}

TEST_F(PanelConfSandboxTest, AnUnknownNameIsNullAndReportedOncePerCall) {
    write("UNKNOWN set\n");
    const auto outcome = inChild([] {
        bool null = true;
        for (const char* name : {"UNKNOWN", "UNKNOWN", "", "_MAX_POSSIBLE_KRA_CONF_VAR_NAME"}) {
            null = null && panel_conf_get_by_name(name) == nullptr;
        }
        return null ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    const auto report = [](const std::string& name) {
        return "12: variable '" + name +
               "' isn't found neither in /etc/kra/kra.conf nor in "
               "compile-time defaults\n";
    };
    EXPECT_EQ(outcome.err, report("UNKNOWN") + report("UNKNOWN") + report("") +
                               report("_MAX_POSSIBLE_KRA_CONF_VAR_NAME"));
}

TEST_F(PanelConfSandboxTest, AnIndexOutsideTheTableIsNull) {
    const auto outcome = inChild(
        [] { return panel_conf_get(-1) == nullptr && panel_conf_get(34) == nullptr ? 0 : 1; });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.err, "");
}

TEST_F(PanelConfSandboxTest, TheFileIsReadOnceAndItsValuesAreKept) {
    write("PRODUCT_ROOT_D /first\nTORVA_MAILNAMES_D /names\n");
    const auto outcome = inChild([] {
        const char* first = panel_conf_get(PRODUCT_ROOT_D);
        std::ofstream(path) << "PRODUCT_ROOT_D /second\nTORVA_MAILNAMES_D /other\n";
        const bool same = panel_conf_get(PRODUCT_ROOT_D) == first;
        std::puts(first);
        std::puts(panel_conf_get(TORVA_MAILNAMES_D)); // looked up after the change
        return same ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.out, "/first\n/names\n");
}

TEST_F(PanelConfSandboxTest, AnUnreadableFileIsReportedWithItsReason) {
    const struct {
        const char* what;
        const char* command;
        int error;
        const char* report;
    } cases[] = {
        {"directory", "mkdir /etc/kra/kra.conf", EISDIR,
         "12: Unable to read configuration file: Is a directory"},
        {"loop of links", "ln -s kra.conf /etc/kra/kra.conf", ELOOP,
         "12: unable to open configuration file /etc/kra/kra.conf: Too many levels of symbolic "
         "links\n"},
        {"no directory on the way", "rmdir /etc/kra && touch /etc/kra", ENOTDIR,
         "12: unable to open configuration file /etc/kra/kra.conf: Not a directory\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(std::system("rm -rf /etc/kra && mkdir /etc/kra"), 0);
        ASSERT_EQ(std::system(c.command), 0);
        const auto outcome = inChild([&] {
            const auto before = openDescriptors();
            if (panel_conf_load() != -1 || errno != c.error) {
                return 1;
            }
            return openDescriptors() == before ? 0 : 2;
        });
        EXPECT_EQ(outcome.exited, 0);
        EXPECT_EQ(outcome.err, c.report);
    }
}

TEST_F(PanelConfSandboxTest, ReadingLeavesNoDescriptor) {
    write("PRODUCT_ROOT_D /opt/panel\n");
    const auto outcome = inChild([] {
        const auto before = openDescriptors();
        return panel_conf_load() == 0 && openDescriptors() == before ? 0 : 1;
    });
    EXPECT_EQ(outcome.exited, 0);
}

TEST_F(PanelConfSandboxTest, WithTheInitialHooksNothingOfThisIsPrinted) {
    const auto outcome = inChild([] {
        log_init("console", 6, 16, 0, nullptr);
        panel_conf_get(PRODUCT_ROOT_D);
        panel_conf_get_by_name("UNKNOWN");
        return 0;
    });
    EXPECT_EQ(outcome.exited, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
}
