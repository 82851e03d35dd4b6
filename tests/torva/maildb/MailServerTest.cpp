#include "torva/maildb/mail_server.h"

#include "torva/maildb/CapturedLog.h"
#include "torva/maildb/mail_auth.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

using namespace torva::test;
using namespace torva::maildb;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(MailServer, EachTypeHasItsPath) {
    EXPECT_STREQ("/var/lib/torva/mail/auth/passwd.db", mail_auth_db_path(MAIL_SERVER_QMAIL));
    EXPECT_STREQ("/var/spool/postfix/torva/passwd.db", mail_auth_db_path(MAIL_SERVER_POSTFIX));
}

TEST(MailServer, AnUnknownTypeIsReportedByEveryOperation) {
    CapturedLog log;
    mail_auth_user user;
    mail_auth_user* users = &user;
    size_t count = 1;
    const struct {
        const char* name;
        std::function<int()> operation;
    } cases[] = {
        {"path", [] { return mail_auth_db_path(-1) == nullptr ? -1 : 0; }},
        {"create", [] { return mail_auth_create_db(-1); }},
        {"add domain", [] { return mail_auth_add_domain(-1, "d", 0); }},
        {"find domain", [] { return mail_auth_find_domain(-1, "d", nullptr, nullptr); }},
        {"delete domain", [] { return mail_auth_delete_domain(-1, "d"); }},
        {"rename domain", [] { return mail_auth_rename_domain(-1, "d", "e"); }},
        {"domain status", [] { return mail_auth_set_domain_status(-1, "d", 0); }},
        {"set user", [] { return mail_auth_set_user(-1, "u@d", "p", 0, 0); }},
        {"read user", [&] { return mail_auth_read_user(-1, "u@d", &user); }},
        {"rename user", [] { return mail_auth_rename_user(-1, "u@d", "v"); }},
        {"delete user", [] { return mail_auth_delete_user(-1, "u@d"); }},
        {"lookup", [&] { return mail_auth_lookup(-1, "u@d", &user); }},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(-1, test.operation()) << test.name;
        EXPECT_THAT(log.take(), ElementsAre(LogLine(2, "Unknown mail server type -1")))
            << test.name;
    }
    EXPECT_EQ(-1, mail_auth_list(2, &users, &count));
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine(2, "Unknown mail server type 2"),
                            LogLine(3, "Unable to get users list from MTA password database")));
    EXPECT_EQ(nullptr, users);
    EXPECT_EQ(0U, count);
}

TEST(FeatureLine, TheQuotedValueNamesTheServer) {
    const struct {
        const char* line;
        int type;
    } cases[] = {
        {"$features['SMTP_Server'] = 'postfix';", MAIL_SERVER_POSTFIX},
        {"$features['SMTP_Server'] = \"postfix\";", MAIL_SERVER_POSTFIX},
        {"$features['SMTP_Server'] = \"Postfix\";", MAIL_SERVER_POSTFIX},
        {"$features['SMTP_Server']='POSTFIX'", MAIL_SERVER_POSTFIX},
        {"$features['SMTP_Server'] = 'qmail';", MAIL_SERVER_QMAIL},
        {"$features['SMTP_Server'] = \"QMail\"", MAIL_SERVER_QMAIL},
        {"$features['SMTP_Server'] no matter what 'qmail' 'postfix'", MAIL_SERVER_QMAIL},
        {"$features['SMTP_Server'] = 'postfix\";", MAIL_SERVER_POSTFIX},
    };
    CapturedLog log;
    for (const auto& test : cases) {
        EXPECT_EQ(test.type, server_type_of_feature(test.line)) << test.line;
        EXPECT_THAT(log.take(), IsEmpty()) << test.line;
    }
}

TEST(FeatureLine, LinesAboutOtherThingsAreIgnored) {
    CapturedLog log;
    for (const char* line :
         {"", "$features['IMAP_Server'] = 'postfix';", " $features['SMTP_Server'] = 'postfix';",
          "$features['SMTP_Server'", "$features[\"SMTP_Server\"] = 'postfix';",
          "$Features['SMTP_Server'] = 'postfix';"}) {
        EXPECT_EQ(MAIL_SERVER_UNKNOWN, server_type_of_feature(line)) << line;
        EXPECT_THAT(log.take(), IsEmpty()) << line;
    }
}

TEST(FeatureLine, AValueWithoutBothQuotesIsReported) {
    CapturedLog log;
    for (const std::string line :
         {"$features['SMTP_Server']", "$features['SMTP_Server'] = postfix;",
          "$features['SMTP_Server'] = 'postfix;"}) {
        EXPECT_EQ(MAIL_SERVER_UNKNOWN, server_type_of_feature(line.c_str()));
        EXPECT_THAT(log.take(),
                    ElementsAre(LogLine(6, "Unparseable line \"" + line + "\", skipped")));
    }
}

TEST(FeatureLine, AnUnknownServerIsReported) {
    CapturedLog log;
    for (const std::string name :
         {"", "exim", "postfix ", "postfi", "postfixx", "qmai", "qmaill"}) {
        const std::string line = "$features['SMTP_Server'] = '" + name + "';";
        EXPECT_EQ(MAIL_SERVER_UNKNOWN, server_type_of_feature(line.c_str()));
        EXPECT_THAT(log.take(),
                    ElementsAre(LogLine(6, "Unknown server style \"" + name + "\", skipped")));
    }
}

} // namespace
