#!/bin/bash
# A device on real services in namespaces of their own (linux-services): dconf,
# NetworkManager with a cable, journald; and on os-release. Sourced by ad-device and
# ad-device-init, which set $device, $build and $here.
# shellcheck disable=SC2154

# What survives a reboot: dconf's database, the connections, os-release, and whether
# the cable is plugged in.
platform_kept() { echo "$device/linux"; }

platform_library() { echo "$build/lib/linux/libad-platform.so.1"; }
platform_namespaces() { echo --net --uts; }
platform_environment() { "$here/linux-services" environment; }
# On another host at the far end of the cable, out of reach when that is unplugged.
platform_host() { echo 10.9.0.1; }
platform_serve() { nsenter --net=/run/netns/far "$@" --bind 0.0.0.0; }

platform_requires() {
    local program
    for program in dbus-daemon dbus-run-session dconf ip NetworkManager nmcli; do
        command -v "$program" >/dev/null ||
            fail "the Linux platform requires $program; run tools/install-packages cmake/packages-linux.txt"
    done
}

platform_install() {
    local kept
    kept=$(platform_kept)
    mkdir -p "$kept/config" "$kept/system-connections"
    echo down >"$kept/cable"
    (
        # NetworkManager ignores a connection file that other users can read.
        umask 077
        cat >"$kept/system-connections/wired.nmconnection" <<'TEXT'
[connection]
id=wired
uuid=5f0a9a3e-7a3b-4c55-9c55-0a5d1f6f2c01
type=ethernet
interface-name=eth0

[ipv4]
method=manual
address1=10.9.0.2/24,10.9.0.1

[ipv6]
method=disabled
TEXT
    )
    set_firmware T-1200.1
    set_consent 0
    set_language en_GB
}

# In the namespaces that the services and the daemon share.
platform_power() {
    local kept
    kept=$(platform_kept)
    "$here/linux-services" setup
    eval "$(platform_environment)"
    mount --bind "$kept/config" "$XDG_CONFIG_HOME"
    mkdir -p /etc/NetworkManager/system-connections
    mount --bind "$kept/system-connections" /etc/NetworkManager/system-connections
    ip netns add far
    ip link set far0 netns far
    ip -n far address add "$(platform_host)/24" dev far0
    ip -n far link set far0 "$(cat "$kept/cable")"
    "$here/linux-services" start
}

# In the daemon's own mount namespace. /run is the services'.
platform_mounts() {
    mount --bind "$(platform_kept)/os-release" /etc/os-release
}

is_powered_or_off() { [ -e "$device/run/powered" ] || is_off; }

# Runs a command among the services, once they are up.
with_services() {
    local pid
    wait_until 10 is_powered_or_off || fail "the services did not start within 10 s"
    pid=$(init_pid) || fail "the device is off"
    eval "$(platform_environment)"
    enter_namespaces "$pid" "$@"
}

# Over the device's own bus while it is on, otherwise over a temporary one.
write_setting() {
    local scratch output status=0
    if ! is_off; then
        output=$(with_services dconf write "$@" 2>&1) || fail "dconf write $1: ${output%%$'\n'*}"
        return
    fi
    scratch=$(mktemp -d "$device/run/settings.XXXXXX")
    output=$(env -u DBUS_SESSION_BUS_ADDRESS XDG_CONFIG_HOME="$(platform_kept)/config" \
        XDG_CACHE_HOME="$scratch" XDG_RUNTIME_DIR="$scratch" \
        dbus-run-session -- dconf write "$@" 2>&1) || status=$?
    rm -rf "$scratch"
    [ $status = 0 ] || fail "dconf write $1: ${output##*$'\n'}"
}

set_network() {
    case $1 in
        up | down) ;;
        *) misused "set network: up or down, not '$1': a device on this platform only has a cable" ;;
    esac
    echo "$1" >"$(platform_kept)/cable"
    is_off || with_services ip -n far link set far0 "$1"
}

set_consent() { write_setting /db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree "$1"; }
set_language() { write_setting /db/menu_widget/language "'$1'"; }
# In place: a running device has the file bind-mounted.
set_firmware() { printf 'NAME="A television"\nIMAGE_VERSION=%s\n' "$1" >"$(platform_kept)/os-release"; }
set_result() { fail "set result: only the simulated platform can fail calls"; }

firmware_version() { sed -n 's/^IMAGE_VERSION=//p' "$(platform_kept)/os-release"; }
