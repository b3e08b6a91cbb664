#!/bin/bash
# A device on the simulated platform, whose state is one key file. Sourced by
# ad-device and ad-device-init, which set $device, $build and $here.
# shellcheck disable=SC2154

platform_library() { echo "$build/lib/libad-platform.so.1"; }
platform_requires() { :; }
platform_namespaces() { :; }
platform_environment() { :; }
platform_power() { :; }
platform_host() { echo 127.0.0.1; }
platform_serve() { "$@" --bind 127.0.0.1; }

platform_mounts() {
    mount -t tmpfs -o mode=755 tmpfs /run
}

platform_install() {
    mkdir -p "$device/opt/platform"
    cat >"$device/opt/platform/state.ini" <<'TEXT'
# What the platform reports to the daemon. Edit it by hand or with `ad-device set`;
# docs/simulated-platform.md explains every key.
[settings]
db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree=int:0
db/menu_widget/language=string:en_GB

[network]
type=disconnected
wifi=0
cellular=0
ethernet=0
bluetooth=0
profiles=wired;home;mobile;phone

[profile wired]
type=ethernet
state=0

[profile home]
type=wifi
state=0

[profile mobile]
type=cellular
state=0

[profile phone]
type=bluetooth
state=0

[system]
firmware=T-1200.1

[results]
TEXT
}

# edit SECTION KEY VALUE [SECTION KEY VALUE...]: changes all of them at once.
edit() {
    local file=$device/opt/platform/state.ini
    cp "$file" "$file.new"
    while [ $# -gt 0 ]; do
        SECTION="[$1]" KEY=$2 VALUE=$3 awk '
            function put() { if (inside && !done) { print key "=" value; done = 1 } }
            BEGIN { section = ENVIRON["SECTION"]; key = ENVIRON["KEY"]; value = ENVIRON["VALUE"] }
            /^\[/ { put(); inside = ($0 == section) }
            inside && index($0, key "=") == 1 { if (!done) print key "=" value; done = 1; next }
            { print }
            END { put(); if (!done) print "\n" section "\n" key "=" value }
        ' "$file.new" >"$file.edited"
        mv "$file.edited" "$file.new"
        shift 3
    done
    mv "$file.new" "$file"
}

set_network() {
    local type=$1 profile="" state=0 connected=0 edits=()
    case $type in
        up) type=ethernet ;;
        down) type=disconnected ;;
        ethernet | wifi | cellular | bluetooth) ;;
        *) misused "set network: up, down, ethernet, wifi, cellular or bluetooth, not '$type'" ;;
    esac
    edits=(network type "$type")
    local pair
    for pair in ethernet:wired wifi:home cellular:mobile bluetooth:phone; do
        state=0 connected=0 profile=${pair#*:}
        if [ "${pair%:*}" = "$type" ]; then
            connected=3 state=2
            [ "$type" != cellular ] || state=5
        fi
        edits+=(network "${pair%:*}" "$state" "profile $profile" state "$connected")
    done
    edit "${edits[@]}"
}

set_consent() { edit settings db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree "int:$1"; }
set_language() { edit settings db/menu_widget/language "string:$1"; }
set_firmware() { edit system firmware "$1"; }
set_result() { edit results "$1" "$2"; }

firmware_version() { sed -n 's/^firmware=//p' "$device/opt/platform/state.ini"; }
