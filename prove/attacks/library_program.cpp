// Stands for a program of the panel: uses the library as root, again and again, while it is
// attacked.
//
//   library_program VERB [COUNT]
//
// Does one thing COUNT times (once), and prints how often it succeeded, how often it
// failed, and the last failure. The exit status is 0 in either case; 2 is misuse.
#include "torva/libc/semaphore.h"
#include "torva/maildb/mail_auth.h"
#include "torva/maildb/panel_db.h"
#include "torva/postfix/mastercf/MasterCfLines.h"
#include "torva/postfix/mastercf/MasterCfWriter.h"
#include "torva/postfix/tables/CreateTable.h"
#include "torva/postfix/tables/Postmap.h"
#include "torva/postfix/tables/TableRewrite.h"
#include "torva/util/FileLock.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

using namespace torva::mail::postfix;

namespace {

const char table[] = "hash:/var/spool/postfix/torva/virtual";
const char store[] = "/var/spool/postfix/torva/master.cf.disabled";
const Records records = {{"ann@example.com", "ann"}, {"bob@example.com", "bob"}};

void require(int result) {
    if (result != 0) {
        throw std::runtime_error("-1");
    }
}

void writeStore() {
    MasterCfLines lines;
    lines.append("# a service that was put aside");
    MasterCfWriter::write(lines, store);
}

void lookUp() {
    mail_auth_user user = {};
    require(mail_auth_lookup(MAIL_SERVER_POSTFIX, "ann@example.com", &user));
    mail_auth_free_user(&user);
}

void layOutMailboxes() {
    require(mail_auth_create_db(MAIL_SERVER_POSTFIX));
    require(mail_auth_add_domain(MAIL_SERVER_POSTFIX, "example.com", 0));
    require(mail_auth_set_user(MAIL_SERVER_POSTFIX, "ann@example.com", "secret", 0, 0));
}

/// Keeps the database busy with writes.
void changeMailbox() {
    require(mail_auth_set_user(MAIL_SERVER_POSTFIX, "bob@example.com", "other", 0, 0));
    require(mail_auth_delete_user(MAIL_SERVER_POSTFIX, "bob@example.com"));
}

void askPanel() {
    char** names = nullptr;
    require(db_get_mail_names(nullptr, "example.com", &names));
    db_free_list(names);
}

const std::map<std::string, std::function<void()>> verbs = {
    {"lock", [] { const torva::FileLock lock("/etc/postfix/main.cf", torva::LockMode::wait); }},
    {"semaphore",
     [] {
         require(sem_lock(1));
         shutdown_sem();
     }},
    {"create", [] { createTable(table, records); }},
    {"put", [] { putRecords(table, records); }},
    {"delete", [] { deleteKeys(table, {"bob@example.com"}); }},
    {"rebuild", [] { rebuildTable(table); }},
    {"rewrite", [] { removeDomainFromTable(table, "example.net", true); }},
    {"store", writeStore},
    {"create-db", [] { require(mail_auth_create_db(MAIL_SERVER_POSTFIX)); }},
    {"lay-out-mailboxes", layOutMailboxes},
    {"change-mailbox", changeMailbox},
    {"look-up", lookUp},
    {"ask-panel", askPanel},
};

} // namespace

int main(int argc, char** argv) {
    const auto verb = verbs.find(argc > 1 ? argv[1] : "");
    if (verb == verbs.end()) {
        return 2;
    }
    const long count = argc > 2 ? std::strtol(argv[2], nullptr, 10) : 1;
    long succeeded = 0;
    std::string failure;
    for (long i = 0; i < count; ++i) {
        try {
            verb->second();
            ++succeeded;
        } catch (const std::exception& error) {
            failure = error.what();
        }
    }
    std::printf("\n%ld succeeded, %ld failed%s%s\n", succeeded, count - succeeded,
                failure.empty() ? "" : ": ", failure.c_str());
    return 0;
}
