# shellcheck shell=bash
# Hides the services of master.cf whose type the tool does not know (anything but
# inet, unix and fifo; Postfix 3.4 and later ship one) from a run of the tool, and
# brings them back byte for byte:
#     shelter_services STORE
#     torva-postfix-setup
#     restore_services STORE
# For callers that keep a copy of the file, or work on one: if they end between the two,
# it stays sheltered. Sourced, never run. Needs messages.sh.

# master_cf: prints the path of the master.cf that is Postfix's own.
master_cf() { printf '%s/master.cf\n' "$(postconf -h config_directory)"; }

# foreign_services: prints NAME/TYPE of each active service of an unknown type.
foreign_services() {
    postconf -M | awk '/^[^ \t#]/ && $2 !~ /^(inet|unix|fifo)$/ { print $1 "/" $2 }'
}

# shelter_services STORE: comments those services out, and nothing else: what postconf
# makes of the file differs between its versions. The directory STORE keeps master.cf as
# it was before and after that.
shelter_services() {
    local store=$1 file
    file=$(master_cf)
    mkdir -p "$store"
    cp -p "$file" "$store/before"
    cp -p "$file" "$store/sheltered" # for its mode and owner
    [[ -n $(foreign_services) ]] || return 0
    LC_ALL=C awk '
        # A comment or an empty line ends no entry, see master(5).
        /^[ \t\r]*(#|$)/ { print; next }
        /^[^ \t\r]/ { foreign = $2 !~ /^(inet|unix|fifo)$/ }
        { print (foreign ? "#" : "") $0 }
    ' "$store/before" >"$store/sheltered"
    keep_end_of_file "$store/before" "$store/sheltered"
    cp -p "$store/sheltered" "$store/result"
    mv "$store/result" "$file"
}

# keep_end_of_file FROM TO: removes the last line end of TO when FROM has none; awk always
# ends the last line.
keep_end_of_file() { [[ -z $(tail -c 1 "$1") ]] || truncate -s -1 "$2"; }

# restore_services STORE: restores the lines that were commented out, in place, in a
# master.cf that may have changed around them since. A line is identified by its text and
# by the number of equal lines above it, because the file may have had the same comment
# before. Dies, and leaves the file alone, when one of them is gone.
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
    keep_end_of_file "$file" "$store/result"
    cmp -s "$store/result" "$file" || mv "$store/result" "$file"
}
