// Times the mail-authentication database: changes and look-ups, each alone and beside
// a process that does the other. Prints "NAME VALUE" lines with the seconds of one operation.
// Only run inside scripts/sandbox: it makes and changes the database of the host.
#include "bench/Measure.h"
#include "torva/maildb/mail_auth.h"

#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace torva;

namespace {

constexpr int type = MAIL_SERVER_POSTFIX;
constexpr int lookUps = 5000;
constexpr int changes = 500;

void lookUp(int /*number*/) {
    mail_auth_user user = {};
    if (mail_auth_lookup(type, "u@d.net", &user) != 0) {
        bench::die("auth_timer: the look-up failed");
    }
    mail_auth_free_user(&user);
}

void change(int number) {
    if (mail_auth_set_domain_status(type, "d.net", number % 2) != 0) {
        bench::die("auth_timer: the change failed");
    }
}

double secondsOfOne(void (*operation)(int), int count) {
    return bench::secondsOf([&] {
               for (int number = 0; number < count; ++number) {
                   operation(number);
               }
           }) /
           count;
}

double secondsBeside(void (*operation)(int), int count, void (*other)(int)) {
    const pid_t busy = ::fork();
    if (busy == 0) {
        for (int number = 0;; ++number) {
            other(number);
        }
    }
    const double seconds = secondsOfOne(operation, count);
    ::kill(busy, SIGKILL);
    ::waitpid(busy, nullptr, 0);
    return seconds;
}

} // namespace

int main() {
    if (std::getenv("TORVA_SANDBOX") == nullptr) {
        bench::die("auth_timer: only to be run inside scripts/sandbox");
    }
    ::mkdir("/var/spool/postfix/torva", 0755);
    if (mail_auth_create_db(type) != 0 || mail_auth_add_domain(type, "d.net", 0) != 0 ||
        mail_auth_set_user(type, "u@d.net", "p", 0, 0) != 0) {
        bench::die("auth_timer: no mail-authentication database");
    }
    bench::report("lookup", secondsOfOne(lookUp, lookUps));
    bench::report("lookup_beside", secondsBeside(lookUp, lookUps, change));
    bench::report("change", secondsOfOne(change, changes));
    bench::report("change_beside", secondsBeside(change, changes, lookUp));
}
