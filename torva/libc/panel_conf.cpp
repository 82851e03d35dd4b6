#include "torva/libc/panel_conf.h"

#include "torva/libc/log.h"
#include "torva/libc/panel_conf_parse.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

const char configurationFile[] = "/etc/kra/kra.conf";
const int configurationPriority = 12;

struct Variable {
    const char* name;
    const char* fallback; ///< compile-time default
};

const Variable variables[] = {
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
static_assert(sizeof(variables) / sizeof(variables[0]) == PANEL_CONF_VARIABLES,
              "the indices of the header count these entries");

panel_conf_file* loaded = nullptr;            ///< kept until exit
const char* cache[PANEL_CONF_VARIABLES] = {}; ///< values of `loaded`; null: not looked up

} // namespace

extern "C" {

int panel_conf_load(void) {
    if (loaded != nullptr) {
        return 0;
    }
    // "e": close-on-exec.
    FILE* stream = std::fopen(configurationFile, "rte");
    if (stream == nullptr) {
        const int saved_errno = errno;
        torva_log(configurationPriority, "unable to open configuration file %s: %s\n",
                  configurationFile, std::strerror(saved_errno));
        errno = saved_errno;
        return -1;
    }
    loaded = panel_conf_parse(stream);
    const int saved_errno = errno;
    std::fclose(stream);
    errno = saved_errno;
    return loaded != nullptr ? 0 : -1;
}

const char* panel_conf_get(int index) {
    if (index < 0 || index >= PANEL_CONF_VARIABLES) {
        return nullptr;
    }
    if (cache[index] == nullptr && panel_conf_load() == 0) {
        cache[index] = panel_conf_find(loaded, variables[index].name);
    }
    return cache[index] != nullptr ? cache[index] : variables[index].fallback;
}

const char* panel_conf_get_by_name(const char* name) {
    // The last entry only ends the table.
    for (int index = 0; index < PANEL_CONF_VARIABLES - 1; ++index) {
        if (std::strcmp(variables[index].name, name) == 0) {
            return panel_conf_get(index);
        }
    }
    torva_log(configurationPriority,
              "variable '%s' isn't found neither in %s nor in compile-time defaults\n", name,
              configurationFile);
    return nullptr;
}

} // extern "C"
