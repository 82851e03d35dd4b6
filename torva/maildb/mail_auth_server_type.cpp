#include "torva/libc/log.h"
#include "torva/libc/panel_conf.h"
#include "torva/maildb/mail_auth.h"
#include "torva/maildb/mail_server.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <strings.h>

namespace torva::maildb {

namespace {

constexpr MailServer servers[] = {
    {"qmail", "/var/lib/torva/mail/auth/passwd.db", nullptr, 0750, 0600},
    // The owner, the mail server itself, may only read; the panel's programs, which are in
    // root's group, may write.
    {"postfix", "/var/spool/postfix/torva/passwd.db", "postfix", 0770, 0460},
};

bool is_server(const char* name, std::size_t length, int type) {
    return std::strlen(servers[type].name) == length &&
           strncasecmp(name, servers[type].name, length) == 0;
}

struct PipeCloser {
    void operator()(std::FILE* pipe) const noexcept { pclose(pipe); }
};

/// A line of a stream, without its line feed.
class Line {
public:
    Line() = default;
    ~Line() { std::free(text_); }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    /// Reads the next line; null at the end and on an error.
    const char* next(std::FILE* stream) {
        const ssize_t length = getline(&text_, &capacity_, stream);
        if (length < 0) {
            return nullptr;
        }
        if (length > 0 && text_[length - 1] == '\n') {
            text_[length - 1] = '\0';
        }
        return text_;
    }

private:
    char* text_ = nullptr;
    std::size_t capacity_ = 0;
};

} // namespace

const MailServer* mail_server(int type) noexcept {
    if (type != MAIL_SERVER_QMAIL && type != MAIL_SERVER_POSTFIX) {
        torva_log(2, "Unknown mail server type %d", type);
        return nullptr;
    }
    return &servers[type];
}

int server_type_of_feature(const char* line) noexcept {
    static constexpr char prefix[] = "$features['SMTP_Server']";
    static constexpr char quotes[] = "'\"";
    if (std::strncmp(line, prefix, sizeof prefix - 1) != 0) {
        return MAIL_SERVER_UNKNOWN;
    }
    const char* open = std::strpbrk(line + sizeof prefix - 1, quotes);
    const char* close = open == nullptr ? nullptr : std::strpbrk(open + 1, quotes);
    if (close == nullptr) {
        torva_log(6, "Unparseable line \"%s\", skipped", line);
        return MAIL_SERVER_UNKNOWN;
    }
    const char* value = open + 1;
    const auto length = static_cast<std::size_t>(close - value);
    for (const int type : {MAIL_SERVER_POSTFIX, MAIL_SERVER_QMAIL}) {
        if (is_server(value, length, type)) {
            return type;
        }
    }
    torva_log(6, "Unknown server style \"%.*s\", skipped", static_cast<int>(length), value);
    return MAIL_SERVER_UNKNOWN;
}

} // namespace torva::maildb

int mail_auth_server_type(void) {
    using namespace torva::maildb;
    char command[4096];
    const int length = std::snprintf(command, sizeof command, "%s/admin/sbin/mtactl --features",
                                     panel_conf_get(PRODUCT_ROOT_D));
    if (length <= 0 || static_cast<std::size_t>(length) >= sizeof command) {
        torva_log(2, "Unable to form the command line of mtactl: it is too long");
        return MAIL_SERVER_UNKNOWN;
    }
    const std::unique_ptr<std::FILE, PipeCloser> pipe(popen(command, "re"));
    if (!pipe) {
        torva_log(3, "Unable to run \"%s\": %s", command, std::strerror(errno));
        return MAIL_SERVER_UNKNOWN;
    }
    Line line;
    while (const char* text = line.next(pipe.get())) {
        const int type = server_type_of_feature(text);
        if (type != MAIL_SERVER_UNKNOWN) {
            return type;
        }
    }
    torva_log(6, "Unable to determine mail server type from ``mtactl --features''");
    return MAIL_SERVER_UNKNOWN;
}

const char* mail_auth_db_path(int type) {
    const torva::maildb::MailServer* server = torva::maildb::mail_server(type);
    return server == nullptr ? nullptr : server->path;
}
