# shellcheck shell=bash disable=SC2154 # the variables of torva-postfixctl
# The verb "check": what on this host would stop a run, or the mail after it. It
# changes nothing. Sourced, never run.

# Tests of host.table.
is_map_type() { postconf -m | grep -x -- "$1"; }
has_address() { ip -o -4 address show | grep -v ' inet 127[.]'; }
is_no_mount() { ! mountpoint -q "$1"; } # one cannot be put in the place of another
ends_its_line() { [[ -z $(tail -c 1 -- "$1") ]]; }
is_empty() { # but for the run's own, those of the host's name; postmap sleeps when it fails
    [[ ! -e $1.db ]] || ! postmap -s "hash:$1" | grep -v "@$(postconf -h myhostname)[[:blank:]]"
}
is_buildable() { # an alias element, which the run rebuilds through the shell
    [[ $1 =~ ^(([a-z]+):)?/?([A-Za-z0-9_.@%+=/-]+)$ && -w /${BASH_REMATCH[3]%"${BASH_REMATCH[3]##*/}"} ]] &&
        is_map_type "${BASH_REMATCH[2]:-$(postconf -h default_database_type)}"
}
is_parsed() { [[ ! -e $1 || -z $(lint "$1") ]]; }
has_answer() { # without a client, a socket has to do
    [[ -S /run/mysqld/mysqld.sock ]] && MYSQL_PWD=$(head -n 1 /etc/kra/.kra.shadow) timeout 10 "$(command -v mariadb \
        mysql true | head -n 1)" --no-defaults --socket=/run/mysqld/mysqld.sock --user=admin --execute='SELECT 1' "$1"
}

check() { check_host || true && ((stops == 0)) || exit 1; }

check_host() {
    local text
    ((EUID == 0)) || report stop root "not running as root; nothing else was looked at" "sudo torva-postfixctl check"
    [[ -x /usr/sbin/postconf && -x /usr/sbin/postmap && -x /usr/sbin/postalias ]] ||
        report stop program "there is no Postfix" "apt-get install postfix postfix-pcre"
    [[ -x $tool ]] || report stop program "there is no $tool" "build it, or install the package"
    ((stops == 0)) || return 0
    fine program "Postfix $(postconf -dh mail_version 2>/dev/null), $tool"
    ask_postfix
    if [[ ! -e $config/main.cf ]]; then
        report warning main.cf "$config/main.cf is missing; nothing else was looked at" "reinstall Postfix's configuration"
        return
    elif ! text=$([[ -f $config/master.cf ]] && postconf -M 2>&1 >/dev/null); then
        report stop main.cf "Postfix does not read $config: $text" "correct it; nothing else was looked at"
        return
    fi
    check_table
    check_master_cf
    check_outcome
}

check_table() {
    local level subject test items bad action item
    while IFS='|' read -r level subject test items bad action; do
        [[ $level != ok ]] || fine "$subject" "$test"
        for item in ${items/ALIASES/$(alias_elements | cut -f 2)}; do
            $test "$item" >/dev/null 2>&1 || report "$level" "$subject" "$item $bad" "$action"
        done
    done <<<"$(sed "/^#/d; s/ *| */|/g; s:PANEL:/usr/lib/torva-9.0:g; s:TABLES:$tables:g; s:CONFIG:$config:g" "$lib/host.table")"
}

# lint FILE: what the tool does not parse in FILE. A null byte is not for every awk.
lint() { if [[ -s $1 ]]; then tr '\000' '\001' <"$1" | awk -f "$lib/master_cf.awk"; else echo "it is empty"; fi; }

# check_master_cf: on a copy, with those services sheltered that apply shelters.
check_master_cf() {
    local copy=$scratch/copy text foreign
    mkdir "$copy"
    cp -pL "$config/master.cf" "$copy/"
    touch -d '1 minute ago' "$copy/main.cf" # Postfix waits for a younger one to age
    foreign=$(foreign_services 2>/dev/null | paste -sd ' ')
    text=$(MAIL_CONFIG=$copy shelter_services "$scratch/sheltered" 2>&1)
    if [[ -n $(MAIL_CONFIG=$copy foreign_services 2>/dev/null) ]]; then
        report stop master.cf "$foreign: cannot be commented out for the run: $text" "comment it out"
    elif text=$(lint "$copy/master.cf") && [[ -n $text ]]; then
        report stop master.cf "torva-postfix-setup does not parse $config/master.cf: $text" \
            "correct it, or comment the entry out for the run (postconf -M# NAME/TYPE)"
    fi
    fine master.cf "$config/master.cf"
    [[ -z $foreign ]] || report ok master.cf "$foreign: the tool knows no such type; apply and preview shelter it"
}

# check_outcome: what "postfix check" does not see, in the configuration after a run.
check_outcome() {
    local level subject text action
    while IFS=$'\t' read -r level subject text action; do
        [[ -z $level ]] || report "$level" "$subject" "$text" "$action"
    done <<<"$({ cat "$lib/services.run" && echo '==' && getent services && echo '==' && postconf -M && echo '==' &&
        postconf -nx && postconf -Px; } 2>/dev/null |
        awk -v programs="$(postconf -h daemon_directory)" -v tables="$tables" -f "$lib/outcome.awk" | sort)"
    fine service "endpoints and programs"
    fine map "the files of all maps"
}
