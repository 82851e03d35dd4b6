# shellcheck shell=bash
# Hides the services of master.cf whose type the tool does not know (anything but
# inet, unix and fifo; Postfix 3.4 and later ship one) from a run of the tool, and
# brings them back byte for byte:
#     shelter_services STORE
#     torva-postfix-setup
#     restore_services STORE
# For those who hold a copy of the file, or work on one: what ends between the two
# leaves it sheltered. Sourced, never run. Needs messages.sh.

# master_cf: prints the path of the master.cf that is Postfix's own.
master_cf() { printf '%s/master.cf\n' "$(postconf -h config_directory)"; }

# foreign_services: prints NAME/TYPE of each active service of an unknown type.
foreign_services() {
    postconf -M | awk '/^[^ \t#]/ && $2 !~ /^(inet|unix|fifo)$/ { print $1 "/" $2 }'
}

# shelter_services STORE: comments those services out with Postfix's own postconf.
# The directory STORE keeps master.cf as it was before and after that.
shelter_services() {
    local store=$1 file services
    file=$(master_cf)
    mkdir -p "$store"
    cp -p "$file" "$store/before"
    # By way of a file: a chroot has no /proc, so no process substitution.
    foreign_services >"$store/services"
    mapfile -t services <"$store/services"
    if ((${#services[@]})); then
        postconf -M# "${services[@]}"
        # postconf leaves a new file, with a mode and an owner of its own.
        chmod --reference="$store/before" "$file"
        chown --reference="$store/before" "$file"
    fi
    cp -p "$file" "$store/sheltered"
}

# restore_services STORE: makes the lines that were commented out what they were,
# in place, in a master.cf that may have changed around them since. A line is known
# by its text and by how many equal ones stand above it, for the file may hold the
# same comment on its own account. Dies, and leaves the file alone, when one of
# them is gone.
restore_services() {
    local store=$1 file
    file=$(master_cf)
    cp -p "$file" "$store/result"
    LC_ALL=C awk '
        FILENAME == ARGV[1] { before[FNR] = $0; next }
        FILENAME == ARGV[2] {
            nth = ++seen[$0]
            if ($0 != before[FNR]) { original[$0, nth] = before[FNR]; wanted++ }
            next
        }
        {
            nth = ++found[$0]
            if (($0, nth) in original) { print original[$0, nth]; wanted-- } else print
        }
        END { exit wanted != 0 }
    ' "$store/before" "$store/sheltered" "$file" >"$store/result" ||
        die "$file: a sheltered line is gone"
    # awk always ends the last line.
    [[ -z $(tail -c 1 "$file") ]] || truncate -s -1 "$store/result"
    cmp -s "$store/result" "$file" || mv "$store/result" "$file"
}
