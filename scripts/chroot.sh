# Systems to test on, made from Debian packages: for scripts to source. Needs root, mmdebstrap and,
# for other processors, qemu-user-static. What is made lies in build/chroots.

chroots=$PWD/build/chroots
mirrors=()

# need PACKAGE COMMAND...: ends the script unless the commands and root are there.
need() {
    local package=$1 command
    shift
    for command in "$@"; do
        if ! command -v "$command" >/dev/null; then
            echo "${0##*/}: $command not found: install the package $package" >&2
            exit 1
        fi
    done
    if [[ $EUID -ne 0 ]]; then
        echo "${0##*/}: only root can make and enter a chroot" >&2
        exit 1
    fi
}

# make_chroot NAME SUITE MMDEBSTRAP-OPTION...: makes a system anew, of Debian unless the array
# `mirrors` has other sources of packages.
make_chroot() {
    local root=$chroots/$1 suite=$2
    shift 2
    echo "== making ${root#"$PWD"/} of $suite: $*"
    rm -rf --one-file-system "$root"
    mkdir -p "$chroots"
    mmdebstrap --quiet "$@" "$suite" "$root" "${mirrors[@]}"
    mkdir -p "$root"/{proc,sys,dev,tmp,root,checkout}
}

# inside NAME COMMAND...: runs a command there, with its own view of mounts and processes. What
# $shared lists, FOLDER:PLACE, can be seen there.
inside() {
    local root=$chroots/$1
    shift
    # shellcheck disable=SC2016  # for the inner shell
    shared="${shared-}" unshare --mount --pid --fork --kill-child bash -euc '
        root=$1
        shift
        mount -t proc proc "$root/proc"
        mount --rbind /sys "$root/sys"
        mount --rbind /dev "$root/dev"
        for pair in $shared; do
            mkdir -p "$root/${pair#*:}"
            mount --bind "${pair%%:*}" "$root/${pair#*:}"
        done
        unset shared
        exec chroot "$root" "$@"' - "$root" "$@"
}
