# Systems to test on, made from packages of Debian and Ubuntu: for scripts to source. Needs root,
# mmdebstrap and, for other processors, qemu-user-static. What is made lies in build/chroots.

chroots=$PWD/build/chroots

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

# make_chroot NAME SUITE MMDEBSTRAP-OPTION...: makes a system anew, of Debian or of Ubuntu.
make_chroot() {
    local root=$chroots/$1 suite=$2 keys pocket sources=()
    shift 2
    if [[ $suite =~ ^(bionic|jammy|noble)$ ]]; then
        # Debian has a package with Ubuntu's keys.
        keys=$chroots/ubuntu-keys/usr/share/keyrings/ubuntu-archive-keyring.gpg
        [[ -e $keys ]] ||
            make_chroot ubuntu-keys trixie --variant=extract --include=ubuntu-archive-keyring
        set -- "$@" --keyring="$keys"
        for pocket in "$suite"{,-updates,-security}; do
            sources+=("deb http://archive.ubuntu.com/ubuntu $pocket main universe")
        done
    fi
    echo "== making ${root#"$PWD"/} of $suite: $*"
    rm -rf --one-file-system "$root"
    mkdir -p "$chroots"
    mmdebstrap --quiet "$@" "$suite" "$root" "${sources[@]}"
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

# make_java NAME JVM: makes $chroots/NAME-java, which runs that system's JVM on this checkout's files.
make_java() {
    cat >"$chroots/$1-java" <<END
#!/usr/bin/env bash
cd '$PWD'
. scripts/chroot.sh
shared="$PWD:$PWD /usr/share/java:usr/share/java"
inside $1 $2 "\$@"
END
    chmod +x "$chroots/$1-java"
}
