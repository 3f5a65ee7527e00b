# shellcheck shell=bash
# How the scripts for Samba know its process. Sourced after lib.sh, whose own way it replaces.

# is_ours PID DIR: PID runs, in the folder DIR. Samba writes over its command line.
is_ours() {
    [[ $1 =~ ^[0-9]+$ && $(readlink "/proc/$1/cwd" 2>/dev/null) == "$2" ]] && is_running "$1"
}
