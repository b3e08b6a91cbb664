# shellcheck shell=bash
# shellcheck disable=SC2154 # set by the caller
# A Debian root with cross compilers, so that this machine gets no other architecture's
# packages; sourced. The caller sets source, the tree, and directory, which holds the
# root and what is built in it, and defines fail(), which shows the file $log.

root=$directory/root
architectures=(arm64 armhf)

packages() { grep -hv '^#' "$source/cmake/$1"; }

mirror() {
    # shellcheck disable=SC2016 # apt's own variables
    apt-get indextargets --format '$(REPO_URI) $(CODENAME)' 'Created-By: Packages' |
        sed -n "s/ $1\$//p" | head -n 1
}

# in_root COMMAND...: runs a command in the root; the tree is /source, the directory /build.
in_root() {
    # shellcheck disable=SC2016 # expanded by the inner shell
    unshare --mount --propagation private bash -c '
        set -e
        root=$1 source=$2 directory=$3
        shift 3
        mount --bind "$source" "$root/source"
        mount --bind "$directory" "$root/build"
        mount -t proc proc "$root/proc"
        mount --rbind /dev "$root/dev"
        exec chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 "$@"
    ' in_root "$root" "$source" "$directory" "$@"
}

install_root() {
    local codename uri architecture wanted
    # shellcheck source=/dev/null
    codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
    uri=$(mirror "$codename")
    rm -rf --one-file-system "$root"
    debootstrap --variant=minbase "$codename" "$root" "${uri:-http://deb.debian.org/debian}"
    mkdir "$root/source" "$root/build"
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    # Packages that bring a service must not start it.
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod 755 "$root/usr/sbin/policy-rc.d"
    wanted=$(packages packages-cross-root.txt)
    for architecture in "${architectures[@]}"; do
        in_root dpkg --add-architecture "$architecture"
        wanted+=" $(packages packages-cross-libraries.txt | sed "s/\$/:$architecture/")"
    done
    in_root apt-get -q update
    # shellcheck disable=SC2086 # one word for each package
    in_root env DEBIAN_FRONTEND=noninteractive apt-get -q install -y --no-install-recommends $wanted
}

ensure_root() {
    local lists=("$source"/cmake/packages-cross-*.txt)
    ! cat "${lists[@]}" | cmp -s - "$directory/root.packages" || return 0
    echo "Installing a Debian root with cross compilers ..."
    log=$directory/root.log
    install_root >"$log" 2>&1 || fail "cannot install the root"
    cat "${lists[@]}" >"$directory/root.packages"
}
