#!/bin/bash
# Shared by the scripts that work on devices; sourced.

# wait_until SECONDS COMMAND...: repeats the command until it succeeds; fails when it
# still has not after that time.
wait_until() {
    local deadline=$((SECONDS + $1 + 1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.02
    done
}

# enter_namespaces PID COMMAND...: runs the command where that process runs. With its
# root directory, which in a chroot is not that of the mount namespace.
enter_namespaces() {
    local pid=$1
    shift
    nsenter --target "$pid" --mount --pid --net --uts --root --wdns=/ -- "$@"
}
