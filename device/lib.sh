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

# ensure_root_mount COMMAND...: runs the command in place of this script if the root
# directory, in a chroot, is not a mount point: no mount could be kept private there.
# Binds it over /proc, which is one, where the mount namespace hides that from outside.
ensure_root_mount() {
    [ -e /proc/self ] && ! mountpoint -q / || return 0
    # shellcheck disable=SC2016 # expanded by the inner shell
    exec unshare --mount --propagation unchanged sh -c '
        mount --make-private /proc && mount --rbind / /proc && mount --make-rprivate /proc &&
        exec chroot /proc env -C "$0" "$@"' "$PWD" "$@"
}
