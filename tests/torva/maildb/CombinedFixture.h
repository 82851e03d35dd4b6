// Fixture of the tests of the combined operations: the panel's database and the
// mail-authentication database side by side.
#pragma once

#include "torva/maildb/AuthDatabase.h"
#include "torva/maildb/PrivateMariaDb.h"

namespace torva::test {

inline LogLine error(const std::string& text) {
    return {3, text};
}
inline const LogLine no_data = error("Unable to get data from mysql database");

inline LogLine no_domain(const std::string& domain) {
    return error("No such domain '" + domain + "' in the mail authentication DB");
}

/// In the panel's database: example.com with the aliases example.net and example.org,
/// and the mail names joe (aliases sales and info) and ann. The authentication database
/// is empty.
class Combined : public AuthDatabase {
protected:
    Combined() : server(PrivateMariaDb::fresh()) {
        server.run("INSERT INTO domains VALUES (1, 'example.com'), (2, 'other.example');"
                   "INSERT INTO domainaliases VALUES (1, 1, 'example.net'), (2, 1, 'example.org');"
                   "INSERT INTO mail VALUES (1, 1, 'joe'), (2, 1, 'ann'), (3, 2, 'joe');"
                   "INSERT INTO mail_aliases VALUES (1, 1, 'sales'), (2, 1, 'info')");
    }

    static void add_domains(const std::vector<std::string>& domains) {
        for (const std::string& domain : domains) {
            EXPECT_EQ(0, mail_auth_add_domain(postfix_type, domain.c_str(), 0));
        }
    }
    static void add_users(const std::vector<std::string>& addresses) {
        for (const std::string& address : addresses) {
            EXPECT_EQ(0, mail_auth_set_user(postfix_type, address.c_str(), "p", 0, 0));
        }
    }

    /// The contents of the authentication database.
    static std::vector<std::string> users() {
        return rows("SELECT u.name || '@' || d.name FROM users u JOIN domains d ON d.id=u.dom_id");
    }
    static std::vector<std::string> domains() { return rows("SELECT name FROM domains"); }
    static std::vector<std::string> records() {
        return rows("SELECT u.name || '@' || d.name, u.userPassword, u.cmusaslsecretPLAIN, "
                    "u.status FROM users u JOIN domains d ON d.id=u.dom_id");
    }

    static std::string mail_names_query(const std::string& domain) {
        return "SELECT m.mail_name FROM mail m JOIN domains d WHERE m.dom_id=d.id AND d.name='" +
               domain + "'";
    }
    static std::string mail_aliases_query(const std::string& name, const std::string& domain) {
        return "SELECT ma.alias FROM mail_aliases ma JOIN mail m, domains d WHERE ma.mn_id=m.id "
               "AND m.mail_name='" +
               name + "' AND m.dom_id=d.id AND d.name='" + domain + "'";
    }
    static std::string domain_aliases_query(const std::string& domain) {
        return "SELECT da.name FROM domainaliases da JOIN domains d WHERE da.dom_id=d.id and "
               "d.name='" +
               domain + "'";
    }

    PrivateMariaDb& server;
};

} // namespace torva::test
