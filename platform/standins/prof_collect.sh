#!/bin/sh
# The device's collection script, as the profiling agent runs it through sudo:
#
#   prof_collect.sh --record FILE FREQUENCY {EVENT,...}   samples the machine until --kill; each
#                                                         second becomes a slice FILE.TIME
#   prof_collect.sh --script SLICE                        prints a slice as text
#   prof_collect.sh --stat FILE EVENT,... MILLISECONDS    counts into FILE until --kill
#   prof_collect.sh --kill                                ends every --record and --stat, however
#                                                         far it has come, and waits for their end
#
# perf does the work. Samples carry the clock that the agent stamps its own samples with. A machine
# without the counters asked for records its clock instead, cpu-clock; one without perf, or where
# this account may not watch the whole machine, writes synthetic data. Either is said on stderr and
# shows in the data.
#
# A recording is one process from beginning to end: the script becomes perf. So nobody stands
# between the agent and perf who could end without the other.
set -u
PATH=$PATH:/usr/bin:/bin
LC_ALL=C
export PATH LC_ALL

readonly mark=ORLA_PROF_COLLECT=1  # in the environment of everything that --kill is to end
readonly kill_passes=100           # of 0.05 s, until --kill loses patience

say() {
    echo "prof_collect.sh: $*" >&2
}

usage() {
    say "usage: --record FILE FREQUENCY EVENTS | --script SLICE | --stat FILE EVENTS MS | --kill"
    exit 2
}

is_number() {
    case $1 in '' | *[!0-9]*) return 1 ;; esac
}

# Whether perf can count these events on the whole machine, all of them.
can_count() {
    counted=$(perf stat -a -x, -o /dev/stdout -e "$1" -- true 2>/dev/null) || return 1
    case $counted in '' | *'<not '*) return 1 ;; esac
}

# The first that perf can count: the events as one group, each for itself, the clock.
recordable() {
    for choice in "$1" "$(echo "$1" | tr -d '{}')" cpu-clock; do
        if can_count "$choice"; then
            echo "$choice"
            return
        fi
    done
    return 1
}

# Numbered lines in place of what perf would have found of the events $1.
synthetic_lines() {
    read -r uptime _ </proc/uptime
    for event in $(echo "$1" | tr ',{}' '   '); do
        number=$((number + 1))
        echo "$uptime synthetic $number $event"
    done
}

# --- record and script -----------------------------------------------------------------------

record() {
    file=$1 frequency=$2 events=$3
    is_number "$frequency" || usage
    [ "$frequency" -gt 0 ] || frequency=1
    if choice=$(recordable "$events"); then
        [ "$choice" = "$events" ] || say "no hardware counters for $events: recording $choice"
        # Without build ids: looking for those of the whole machine costs more than the samples.
        exec perf record -q -a -k monotonic_raw -B -N -F "$frequency" -e "$choice" \
            -o "$file" --switch-output=1s
    fi
    say "perf may not watch the whole machine: writing synthetic slices"
    number=0
    while :; do
        {
            echo "# synthetic: no perf on this machine; asked for $events at $frequency Hz"
            synthetic_lines "$events"
        } >"$file"
        mv -- "$file" "$file.$(date +%Y%m%d%H%M%S%2N)"  # as perf does
        sleep 1
    done
}

resolve() {
    case $(head -c 11 -- "$1" | tr -d '\0') in
        '# synthetic') exec cat -- "$1" ;;
        '') exit 1 ;;
        *) exec perf script -f -i "$1" --ns -F comm,pid,tid,cpu,time,period,event,ip,sym,dso \
            2>/dev/null ;;
    esac
}

# --- stat ------------------------------------------------------------------------------------

count() {
    file=$1 events=$2 interval=$3 choice=
    is_number "$interval" || usage
    [ "$interval" -gt 0 ] || interval=1
    for event in $(echo "$events" | tr ',' ' '); do
        case $event in
            read | read:*) event=LLC-loads${event#read} ;;
            write | write:*) event=LLC-stores${event#write} ;;
        esac
        choice=$choice${choice:+,}$event
    done
    if can_count "$choice"; then
        exec perf stat -a -I "$interval" -e "$choice" -o "$file"
    elif can_count cpu-clock; then
        say "no hardware counters for $events: counting cpu-clock"
        exec perf stat -a -I "$interval" -e cpu-clock -o "$file"
    fi
    say "perf may not watch the whole machine: writing synthetic counts"
    number=0
    pause=$((interval / 1000)).$(printf %03d $((interval % 1000)))
    echo "# synthetic: no perf on this machine; asked for $events every $interval ms" >"$file"
    while :; do
        synthetic_lines "$events" >>"$file"
        sleep "$pause"
    done
}

# --- kill ------------------------------------------------------------------------------------

# The pids of this device's recordings, on stdout: those that carry the mark, and those that are
# on their way to it, as sudo or as this script. Other sandboxes have the same names in /proc, so
# the mount namespace decides whose they are.
recordings() {
    {
        grep -lszxF -e "$mark" /proc/[0-9]*/environ
        grep -lszxE -e '--record|--stat' /proc/[0-9]*/cmdline | while read -r line; do
            ! grep -qszxF -e "$0" "$line" || echo "$line"
        done
    } | cut -d/ -f3 | sort -un | while read -r pid; do
        if [ "$(readlink "/proc/$pid/ns/mnt")" = "$own" ] &&
            ! grep -qs '^State:.Z' "/proc/$pid/status"; then
            echo "$pid"
        fi
    done
}

# For an instant a process that becomes another program has neither arguments nor environment, so
# only two looks in a row that find nothing count.
end_all() {
    own=$(readlink /proc/self/ns/mnt)
    quiet=0 pass=0 signal=TERM
    while [ "$quiet" -lt 2 ]; do
        pids=$(recordings)
        if [ -z "$pids" ]; then
            quiet=$((quiet + 1))
        else
            quiet=0
            pass=$((pass + 1))
            [ "$pass" -le "$kill_passes" ] || signal=KILL
            if [ "$pass" -gt $((2 * kill_passes)) ]; then
                say "these do not end: $pids"
                exit 1
            fi
            # shellcheck disable=SC2086  # a list of numbers
            kill -s "$signal" $pids 2>/dev/null  # one that has ended meanwhile is no error
        fi
        sleep 0.05
    done
}

case ${1-}:$# in
    --record:4) shift; export "${mark?}"; record "$@" ;;
    --script:2) resolve "$2" ;;
    --stat:4) shift; export "${mark?}"; count "$@" ;;
    --kill:1) end_all ;;
    *) usage ;;
esac
