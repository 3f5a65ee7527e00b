# shellcheck shell=bash
# What the scripts of the test bed share. Sourced, not run.

# slapd and slapadd live in sbin, which a plain user's PATH may lack.
PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin
export PATH
# Keeps the host's ldap.conf and LDAP* variables away from the tools.
export LDAPNOINIT=1

die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

# need COMMAND...: all of them are installed.
need() {
    local command
    for command in "$@"; do
        command -v "$command" >/dev/null 2>&1 ||
            die "needs '$command'; on Debian: apt-get install slapd ldap-utils openssl python3"
    done
}

# usage: prints the comment that opens the calling script.
usage() { sed -n '2,/^set /{/^set /d;s/^# \{0,1\}//;p}' "$0"; }

# first_existing PATH...: prints the first that exists.
first_existing() {
    local path
    for path in "$@"; do
        if [[ -e $path ]]; then
            printf '%s\n' "$path"
            return 0
        fi
    done
    return 1
}

# loopback_addresses: prints the loopback addresses that this host has.
loopback_addresses() {
    python3 - <<'PY'
import socket
for family, address in (socket.AF_INET, '127.0.0.1'), (socket.AF_INET6, '::1'):
    try:
        with socket.socket(family) as probe:
            probe.bind((address, 0))
        print(address)
    except OSError:
        pass
PY
}

# encoded_for_uri: percent-encodes all bytes of its input that may not stand in the host of a URI.
encoded_for_uri() {
    python3 -c 'import sys, urllib.parse
print(urllib.parse.quote(sys.stdin.buffer.read(), safe=""))'
}

# free_ports COUNT ADDRESS...: prints COUNT ports that can be bound on every address. They lie below
# the kernel's ephemeral range, so that no outgoing connection takes one before the server binds it.
free_ports() {
    python3 - "$@" <<'PY'
import random, socket, sys

def is_free(port):
    for address in addresses:
        family = socket.AF_INET6 if ':' in address else socket.AF_INET
        with socket.socket(family) as probe:
            try:
                probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                if family == socket.AF_INET6:
                    probe.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
                probe.bind((address, port))
                probe.listen(1)
            except OSError:
                return False
    return True

count, addresses = int(sys.argv[1]), sys.argv[2:]
candidates = random.SystemRandom().sample(range(15000, 32000), 5000)
found = []
for port in candidates:
    if is_free(port):
        found.append(port)
    if len(found) == count:
        print(*found)
        sys.exit(0)
sys.exit('no free ports')
PY
}

# is_ours PID MARK: PID runs, and MARK occurs in its command line, or is the folder it runs in: Samba
# writes over its command line. So a number that the kernel has given to another process is never taken
# for ours.
is_ours() {
    local pid=$1 mark=$2
    [[ $pid =~ ^[0-9]+$ && -d /proc/$pid ]] || return 1
    [[ $(ps -o stat= -p "$pid" 2>/dev/null) != Z* ]] || return 1
    [[ $(readlink "/proc/$pid/cwd" 2>/dev/null) == "$mark" ]] ||
        tr '\0' ' ' 2>/dev/null <"/proc/$pid/cmdline" | grep -qF -- "$mark"
}

# is_running PID: PID runs; for a child of this shell, whose PID the kernel cannot reuse.
is_running() {
    local state
    state=$(ps -o stat= -p "$1" 2>/dev/null) && [[ $state != Z* ]]
}

# ends_within TICKS PID MARK: waits, in steps of 50 ms, until PID is gone.
ends_within() {
    local ticks=$1 pid=$2 mark=$3 i
    for ((i = 0; i < ticks; i++)); do
        is_ours "$pid" "$mark" || return 0
        sleep 0.05
    done
    return 1
}

# stop_process PID MARK: asks PID to end, insists after 15 seconds. Quiet when it is gone already.
stop_process() {
    local pid=$1 mark=$2
    is_ours "$pid" "$mark" || return 0
    kill -TERM "$pid" 2>/dev/null || :
    kill -CONT "$pid" 2>/dev/null || : # a test may have paused it
    ends_within 300 "$pid" "$mark" && return 0
    kill -KILL "$pid" 2>/dev/null || :
    ends_within 100 "$pid" "$mark"
}

# answers URI: the server answers an anonymous search of its root entry, be it with a refusal.
answers() {
    local rc=0
    timeout 3 ldapsearch -x -LLL -o nettimeout=2 -H "$1" -s base -b '' 1.1 >/dev/null 2>&1 || rc=$?
    case $rc in
    0 | 8 | 48 | 50 | 53) return 0 ;;
    *) return 1 ;;
    esac
}

# accepts ADDRESS PORT: something listens there.
accepts() {
    # shellcheck disable=SC2016  # expanded by the inner shell
    timeout 1 bash -c 'exec 3<>"/dev/tcp/$0/$1"' "$1" "$2" 2>/dev/null
}

# in_uri ADDRESS: the address as it stands in a URI.
in_uri() {
    if [[ $1 == *:* ]]; then printf '[%s]' "$1"; else printf '%s' "$1"; fi
}

# use_kerberos DIR: exports what a server in DIR needs of its realm, if it has one.
use_kerberos() {
    local realm
    [[ -f $1/kerberos ]] || return 0
    realm=$(<"$1/kerberos")
    export KRB5_CONFIG=$realm/krb5.conf KRB5_KTNAME=$realm/service.keytab KRB5RCACHENAME=none:
    [[ ! -f $1/service.keytab ]] || KRB5_KTNAME=$1/service.keytab # readable for the server's account
}

# quoted TEXT: the text as one word of slapd.conf.
quoted() {
    local text=${1//\\/\\\\}
    printf '"%s"' "${text//\"/\\\"}"
}
