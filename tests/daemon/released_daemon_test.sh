#!/bin/sh
# Looks at the released daemon: how it writes to standard output, the names it
# exports, its size.
# Usage: released_daemon_test.sh NM STRIP DAEMON UTILITIES-OBJECT
set -eu
nm=$1 strip=$2 daemon=$3 utilities=$4

result=0
fail() {
    echo "released_daemon_test: $*" >&2
    result=1
}

imports=$("$nm" -D --undefined-only "$daemon" | sed 's/.* //; s/@.*//')
echo "$imports" | grep -qx __printf_chk || fail "standard output is not written by __printf_chk"
for plain in printf puts putchar fflush; do
    ! echo "$imports" | grep -qx "$plain" || fail "$plain is called"
done

names=$("$nm" -C --defined-only --extern-only "$utilities" |
    sed -n 's/^[0-9a-f]* T //p' | LC_ALL=C sort | paste -sd ';')
[ "$names" = "ad_copy;ad_copy_lib(char const*, char const*);ad_copy_lib_fwk();ad_copy_lib_player();\
ad_copy_path(char const*, char const*);ad_copy_player_res();ad_mount;ad_mounter_create;\
ad_remove_lib_so_path;ad_replace_img;ad_umount;check_existed;system_cmd" ] ||
    fail "the utilities export: $names"

stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"$strip" -o "$stripped" "$daemon"
size=$(wc -c <"$stripped")
echo "stripped: $size bytes"
[ "$size" -lt 100000 ] || fail "stripped, the daemon has $size bytes"
exit $result
