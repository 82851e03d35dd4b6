// Fixture of the tests in which the account that owns the directory of the mail-authentication
// database puts something else there.
#pragma once

#include "torva/maildb/AuthDatabase.h"
#include "torva/maildb/BoundedChild.h"
#include "torva/maildb/Files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <pwd.h>
#include <string>
#include <sys/stat.h>

namespace torva::test::hostile {

inline const std::string path = auth_path;
inline const std::string journal = path + "-journal";
inline const std::string aside = "/var/tmp/aside.db"; // where the real database is meanwhile
inline const std::string victim = "/var/tmp/victim";

inline int look_up() {
    mail_auth_user user;
    const int result = mail_auth_lookup(postfix_type, "joe@example.com", &user);
    mail_auth_free_user(&user);
    return result;
}

inline int add_domain() {
    return mail_auth_add_domain(postfix_type, "new.example", 0);
}

/// Contents, owner, group, mode and number of links.
inline std::string state(const std::string& file) {
    struct stat status {};
    if (lstat(file.c_str(), &status) != 0) {
        return "missing";
    }
    return read_file(file) + "|" + std::to_string(status.st_uid) + ":" +
           std::to_string(status.st_gid) + " " + std::to_string(status.st_mode) + " " +
           std::to_string(status.st_nlink);
}

inline uid_t postfix_id() {
    return getpwnam("postfix")->pw_uid;
}

class HostileDirectory : public AuthDatabase {
protected:
    HostileDirectory() {
        EXPECT_EQ(0, mail_auth_add_domain(postfix_type, "example.com", 0));
        EXPECT_EQ(0, mail_auth_set_user(postfix_type, "joe@example.com", "p", 0, 0));
        write_file(victim, "somebody else's");
        chmod(victim.c_str(), 0640);
    }
    ~HostileDirectory() override {
        for (const std::string& file : {path, journal, victim, aside}) {
            std::filesystem::remove_all(file);
        }
    }
    static void put_aside() {
        std::filesystem::copy_file(path, aside);
        std::filesystem::remove(path);
    }

    /// Every operation reports that the database cannot be opened, and soon.
    static void expect_refusal(const std::string& what) {
        const std::string reason = auth_path + std::string(": unable to open database file\n");
        EXPECT_EQ("-1\n3 Unable to open database " + reason, bounded(add_domain)) << what;
        EXPECT_EQ("-1\n3 Unable to open database(readonly) " + reason, bounded(look_up)) << what;
    }
};

} // namespace torva::test::hostile
