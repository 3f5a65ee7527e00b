# shellcheck shell=bash disable=SC2034
# Functions shared by the scripts of this folder: installing packages and building. Source it.

# The top of the repository; every script runs there, whatever its working directory.
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# slapd is in sbin, which may be missing from a user's PATH.
PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin
export PATH

# Debian packages, by purpose.
packages_build=(g++ cmake ninja-build libldap-dev libboost-dev libboost-thread-dev
    libgnutls28-dev libc-ares-dev libidn2-dev libsasl2-dev libcli11-dev libfmt-dev rapidjson-dev)
packages_demo=(ca-certificates postfix)
packages_directory=(slapd ldap-utils openssl python3 procps)
packages_test=(ca-certificates libgtest-dev libgmock-dev locales gdb krb5-kdc krb5-admin-server
    krb5-user libsasl2-modules-gssapi-mit postfix postfix-ldap)
packages_unpacked=(exim4-daemon-light libidn12 sendmail-bin) # other mail servers, not to be installed
packages_clang=(clang libclang-rt-dev)
packages_lint=(clang-format clang-tidy clang cppcheck shellcheck codespell similarity-tester git
    black flake8 python3-pep8-naming)
packages_coverage=(gcovr)
packages_consumer=(pkg-config)
packages_package=(dpkg-dev file)
packages_package_check=(lintian)
packages_debian=(mmdebstrap python3 iproute2 procps)
packages_abi=(abigail-tools)
packages_bench=(libbenchmark-dev postfix postfix-ldap python3-ldap python3-matplotlib libnet-ldap-perl perl)
packages_389=(389-ds-base libnss3-tools)
packages_samba=(samba-ad-dc samba-ad-provision)
packages_cluster=(haproxy)
packages_site=(doxygen graphviz mandoc fonts-liberation python3 python3-sphinx python3-myst-parser python3-breathe furo)

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

step() { printf '\n==> %s\n' "$*"; }

# missing_packages PACKAGE...: prints those that are not installed, one per line.
missing_packages() {
    local name
    for name in "$@"; do
        [[ $(dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null) == installed ]] ||
            printf '%s\n' "$name"
    done
}

# install_packages PACKAGE...: installs missing packages, or prints the command if that needs root.
install_packages() {
    command -v dpkg-query >/dev/null || die "needs Debian 12 or 13, or a derivative: dpkg is missing"
    local -a missing as_root=()
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]})) || return 0
    if (($(id -u) != 0)); then
        if command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
            as_root=(sudo -n)
        else
            die "needs packages that only root can install; run as root: apt-get install --no-install-recommends ${missing[*]}"
        fi
    fi
    step "Installing ${missing[*]}"
    local log
    log=$(mktemp)
    # Serialised: a second apt fails instead of waiting for the lock of its lists.
    if ! "${as_root[@]}" flock /var/lib/dpkg/solvane-install.lock bash -s "${missing[@]}" >"$log" 2>&1 <<'ROOT'
set -e
export DEBIAN_FRONTEND=noninteractive
# Only slapd's program is needed: no database, and no server started by the package.
if [[ " $* " == *" slapd "* ]] && command -v debconf-set-selections >/dev/null; then
    echo 'slapd slapd/no_configuration boolean true' | debconf-set-selections
fi
# Only Postfix's programs are needed: no configuration, and no server.
if [[ " $* " == *" postfix "* ]] && command -v debconf-set-selections >/dev/null; then
    echo 'postfix postfix/main_mailer_type select No configuration' | debconf-set-selections
fi
# Packages must not start services.
if [[ ! -e /usr/sbin/policy-rc.d ]]; then
    trap 'rm -f /usr/sbin/policy-rc.d' EXIT
    printf '#!/bin/sh\nexit 101\n' >/usr/sbin/policy-rc.d
    chmod 755 /usr/sbin/policy-rc.d
fi
for try in 1 2 3; do
    apt-get -q update && break
    sleep "$try"
done
apt-get -q -y -o DPkg::Lock::Timeout=600 install --no-install-recommends "$@"
ROOT
    then
        tail -n 30 "$log" >&2
        rm -f "$log"
        die "could not install ${missing[*]}"
    fi
    rm -f "$log"
}

# unpack_packages FOLDER PACKAGE...: unpacks packages below FOLDER, without installing them. Returns 1 if
# they cannot be downloaded.
unpack_packages() {
    local folder=$1 work package
    shift
    [[ ! -e $folder/complete ]] || return 0
    work=$(mktemp -d)
    if ! (cd "$work" && apt-get -q download "$@" >log 2>&1); then
        printf 'cannot download %s: %s\n' "$*" "$(tail -n 1 "$work/log")" >&2
        rm -rf "$work"
        return 1
    fi
    mkdir -p "$folder"
    for package in "$work"/*.deb; do
        dpkg -x "$package" "$folder"
    done
    rm -rf "$work"
    touch "$folder/complete"
}

# configure PRESET: configures build/PRESET.
configure() {
    mkdir -p "$top/build/$1"
    (cd "$top" && cmake --preset "$1") >"$top/build/$1/configure.log" 2>&1 || {
        cat "$top/build/$1/configure.log" >&2
        die "could not configure $1"
    }
}

# cannot REASON: exits with 77: this machine cannot run the script.
cannot() {
    printf '%s: cannot run on this machine: %s\n' "${0##*/}" "$*" >&2
    exit 77
}

# debian_release: prints the name of this machine's release.
debian_release() { (. /etc/os-release && printf '%s' "$VERSION_CODENAME"); }

# debian_sources RELEASE: prints apt's sources for it, with the mirror of this machine.
debian_sources() {
    local own
    own=$(debian_release)
    # shellcheck disable=SC2016  # apt's variables
    apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
        'Created-By: Packages' 'Origin: Debian' | sort -u |
        sed -En "s/^(deb [^ ]+) $own(-[a-z]+)? /\\1 $1\\2 /p" | grep .
}

# debian_tar RELEASE: creates a minimal Debian (priority "required", and apt) with this machine's apt
# settings for downloads, and sets debian_tar to its tar file. The file is cached in build/debians until
# the date of the mirror's lists changes.
debian_tar() {
    local release=$1 folder=$top/build/debians work uri suite date
    (($(id -u) == 0)) || cannot "only root can make a Debian"
    unshare --mount --pid --fork true 2>/dev/null || cannot "this root may not mount anything"
    install_packages "${packages_debian[@]}"
    mkdir -p "$folder"
    work=$(mktemp -d)
    chmod 755 "$work" # for apt's own user
    debian_sources "$release" >"$work/sources" ||
        cannot "apt has no lists of a Debian mirror; apt-get update fetches them"
    while read -r _ uri suite _; do
        /usr/lib/apt/apt-helper download-file "${uri}dists/$suite/InRelease" "$work/$suite" \
            >"$work/log" 2>&1 || cannot "apt's mirror has no $suite: $(tail -n 1 "$work/log")"
    done <"$work/sources"
    date=$(grep -hm 1 '^Date:' "$work/$release"* | cut -d' ' -f2- | date -uf - +%Y%m%dT%H%M%S | sort | tail -n 1)
    debian_tar=$folder/$release-$date.tar
    if [[ ! -f $debian_tar ]]; then
        apt-config dump Acquire | grep -v '^Acquire::IndexTargets' >"$work/acquire"
        TMPDIR=$work timeout 1200 mmdebstrap --mode=root --format=tar --variant=minbase \
            --aptopt="$work/acquire" "$release" "$work/tar" "$work/sources" >"$folder/$release.log" 2>&1 || {
            tail -n 20 "$folder/$release.log" >&2
            die "could not create a minimal $release"
        }
        rm -f "$folder/$release"-*.tar
        mv "$work/tar" "$debian_tar"
    fi
    rm -rf "$work"
}

# in_root ROOT COMMAND...: runs it with that folder as its root, for at most two hours. Its processes and
# mounts end with it, and it ends with the script: call leave_root before the script exits.
in_root() {
    local root=$1
    shift
    # shellcheck disable=SC2016  # for the inner shell
    timeout 7200 unshare --mount --pid --fork --kill-child sh -c '
        root=$1; shift
        mount --bind "$root" "$root" && # so that "/" is a mount of its own there
            mount --rbind /dev "$root/dev" && mount -t proc proc "$root/proc" || exit
        [ ! -d "$root/ccache" ] || mount --bind "$SOLVANE_CCACHE_DIR" "$root/ccache" || exit
        exec chroot "$root" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"' sh "$root" "$@" &
    in_root_pid=$!
    wait "$in_root_pid"
}

# boot_root ROOT: starts systemd in that folder, with processes, loopback network and control groups of its
# own; in_booted COMMAND... runs a command there. It ends with leave_root.
boot_root() {
    local root=$1 groups try
    groups=$(awk '$3 == "cgroup2" { print $2; exit }' /proc/self/mounts)
    [[ -n $groups ]] || cannot "there is no hierarchy of control groups, version 2"
    booted_group=$groups/solvane-$$
    mkdir "$booted_group"
    (
        echo "$BASHPID" >"$booted_group/cgroup.procs"
        # shellcheck disable=SC2016  # for the inner shell
        exec unshare --mount --pid --ipc --uts --net --cgroup --fork --kill-child sh -ec '
            cd "$1"
            ip link set lo up
            hostname "$(cat etc/hostname)"
            mount --bind "$1" "$1"
            cd "$1"
            mount -t proc proc proc
            mount -t sysfs -o ro sysfs sys
            mount -t cgroup2 cgroup2 sys/fs/cgroup
            mount -t tmpfs -o mode=755 tmpfs run
            mount -t tmpfs -o mode=755 tmpfs dev
            for device in null zero full random urandom tty; do
                touch "dev/$device"
                mount --bind "/dev/$device" "dev/$device"
            done
            mkdir dev/pts dev/shm
            mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
            ln -s pts/ptmx dev/ptmx
            mount -t tmpfs tmpfs dev/shm
            pivot_root . mnt
            exec env -i container=other PATH=/usr/sbin:/usr/bin:/sbin:/bin sh -c "umount -l /mnt
                exec /lib/systemd/systemd --system --log-target=console"
        ' sh "$root" >"$top/build/booted.log" 2>&1
    ) &
    booted_pid=$!
    for ((try = 0; try < 300; ++try)); do
        systemd_pid=$(pgrep -P "$booted_pid") || :
        if [[ -n $systemd_pid && $(<"/proc/$systemd_pid/comm") == systemd ]] &&
            in_booted systemctl is-system-running --wait >/dev/null 2>&1; then
            return
        fi
        kill -0 "$booted_pid" 2>/dev/null || break
        sleep 0.1
    done
    {
        cat "$top/build/booted.log"
        in_booted systemctl --no-pager --failed || :
    } >&2
    cannot "systemd does not start in a folder"
}

in_booted() {
    timeout 1200 nsenter --target "$systemd_pid" --all env -i HOME=/root LC_ALL=C.UTF-8 \
        PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}

leave_root() {
    [[ -z ${in_root_pid:-} ]] || kill "$in_root_pid" 2>/dev/null || :
    [[ -z ${booted_pid:-} ]] || kill -KILL "$booted_pid" 2>/dev/null || :
    { wait; } 2>/dev/null # without bash's word on what was killed
    if [[ -n ${booted_group:-} ]]; then
        # Its processes are gone once the groups can be removed.
        # shellcheck disable=SC2016  # for the inner shell
        timeout 30 sh -c 'until find "$1" -depth -type d -exec rmdir {} + 2>/dev/null; do sleep 0.1; done' \
            sh "$booted_group" || :
        booted_group=
    fi
}

# build PRESET [TARGET...]: configures and builds build/PRESET; builds of one preset are serialised.
build() {
    local preset=$1
    shift
    local -a targets=()
    (($# == 0)) || targets=(--target "$@")
    mkdir -p "$top/build/$preset"
    (
        cd "$top" || exit
        flock 9
        configure "$preset" 9>&-
        cmake --build --preset "$preset" "${targets[@]}" 9>&-
    ) 9>"$top/build/$preset/.lock"
}
