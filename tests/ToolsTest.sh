#!/usr/bin/env bash
# Tests the tools as their users run them: ToolsTest.sh VE-RTCHECK VE-JITTER [EMULATOR...]
set -euo pipefail
rtcheck=("${@:3}" "$(realpath "$1")")
jitter=("${@:3}" "$(realpath "$2")")
cd "$(mktemp -d)"
trap 'rm -rf "$PWD"' EXIT

fail() { printf 'FAILED: %s\n' "$*" && cat out err && exit 1; }

# expect CODES PATTERN COMMAND...: the exit code is one of them, and what is written has a line that matches.
expect() {
    local codes=$1 pattern=$2 code=0
    shift 2
    "$@" >out 2>err || code=$?
    [[ " $codes " == *" $code "* ]] || fail "exit code $code instead of $codes: $*"
    grep -qE -- "$pattern" out err || fail "no '$pattern' from: $*"
}

# Wrong command lines: the words that name what is wrong, then the arguments.
while IFS='|' read -r pattern arguments; do
    # shellcheck disable=SC2086
    expect 2 "$pattern" "${jitter[@]}" $arguments
    if [ -s out ] || ! grep -q '^usage: ve-jitter' err; then fail "not so on standard error: $arguments"; fi
done <<TABLE
unknown option --p|--p 1000
unexpected argument 'no'|--lock-memory no
--lock-memory is yes or no, not 'maybe'|--lock-memory=maybe
--csv needs a value|--csv --json
--period is a whole number from 1 to [0-9]+, not '0'|--period 0
not '10ms'|--period=10ms
--processor .* from 0 to [0-9]+, not '$(nproc --all)'|--processor $(nproc --all)
has 4295000000 periods|--period 1 --seconds 4295
--csv cannot write '/nowhere/file': No such file|--csv /nowhere/file
both write '/dev/null'|--csv /dev/null --svg /dev/null
TABLE
expect 1 'could not be written' sh -c '"$@" >/dev/full' - "${rtcheck[@]}" --help

# A right that is missing is a row, and a reason.
without_rights=(prlimit --rtprio=0 --memlock=0 --msgqueue=0)
[ "$(id -u)" != 0 ] || without_rights+=(setpriv --bounding-set=-all --inh-caps=-all)
expect 1 '^missing: real-time priority, memory locking, message queues' "${without_rights[@]}" "${rtcheck[@]}"
expect 1 'Operation not permitted' "${without_rights[@]}" "${jitter[@]}" --priority 1 --seconds 1
expect 1 '^ve-jitter: --lock-memory: ' "${without_rights[@]}" "${jitter[@]}" --lock-memory --seconds 1
expect 0 'memory not locked \(.+\), latency target' "${without_rights[@]}" "${jitter[@]}" --seconds 1 --period 5000
grep -q ': 200 calls, missed periods: ' out || fail "not all calls were made"

# What the machine permits is tried, and a limit for threads that do not wait is not run into.
expect '0 1' 'real-time throttling +(RLIMIT_RTTIME|not tried)' prlimit --rttime=1000000 "${rtcheck[@]}"
locks=$(grep -q '^ok  *memory locking' out && echo True || echo False)
tried=$(grep -q '^missing  *real-time priority' out && echo '"not tried' || echo '2100 ms')
expect '0 1' "real-time throttling.*$tried" "${rtcheck[@]}" --json

# What the files of another machine make of a row: ROW|STATE|FILE OR FOLDER|FILE IN THE FOLDER|CONTENT
# shellcheck disable=SC2016
replaced='mount -t tmpfs none /sys/kernel/debug; mount --bind /dev/null /proc/cmdline
    if [ -d "$1" ]; then mount -t tmpfs none "$1"; install -D "$0" "$1/$2"; else mount --bind "$0" "$1"; fi
    shift 2; exec "$@"'
[ -e /proc/config.gz ] && config='/proc/config.gz|' || config="/boot|config-$(uname -r)"
while IFS='|' read -r row state place file content; do
    [[ $row != preemption || $(uname -v) == *PREEMPT_DYNAMIC* ]] || continue
    [[ $place != /proc/cpuinfo || $# == 2 ]] || continue  # Some emulators show one of their own.
    printf '%s\n' "$content" | if [[ $place == *.gz ]]; then gzip; else cat; fi >content
    expect '0 1' "^$state +$row" unshare -rm sh -e -c "$replaced" content "$place" "$file" "${rtcheck[@]}"
done <<TABLE
interrupts|weak|/sys/devices/system/cpu|isolated|0-7
sibling threads|weak|/sys/devices/system/cpu|cpu0/topology/thread_siblings_list|0,1
frequency governor|weak|/sys/devices/system/cpu|cpu0/cpufreq/scaling_governor|powersave
swap|weak|/proc/meminfo||SwapTotal: 1024 kB
virtual machine|weak|/proc/cpuinfo||flags : fpu hypervisor
preemption|weak|/sys/kernel/debug|sched/preempt|none voluntary full (lazy)
preemption|weak|/proc/cmdline||preempt=none preempt=full preempt=odd -- preempt=none
preemption|missing|$config|CONFIG_PREEMPT_NONE=y
TABLE

# An interrupt ends a run early, and what it promises is written all the same.
mkfifo progress && exec 3<>progress
# The shell starts those in the background with interrupts ignored.
env --default-signal=INT "${jitter[@]}" --seconds 1000 --json --csv csv --svg svg >out 2>&3 &
read -r <&3 && kill -INT $!
wait $! || fail "interrupted, it fails"
python3 - <<PYTHON || fail "its report and its files are not right"
import csv, json, xml.etree.ElementTree as xml
report = json.load(open("out"))
lateness = report["lateness_us"]
calls = [float(row["lateness_us"]) for row in csv.DictReader(open("csv"))]
assert len(calls) == report["calls"] == sum(bin["calls"] for bin in report["histogram"])
assert 0 <= lateness["min"] <= lateness["median"] <= lateness["max"] and abs(max(calls) - lateness["max"]) < 0.1
texts = [element.text for element in xml.parse("svg").iter() if element.tag.endswith("text")]
assert f'{lateness["max"]:.1f} us' in texts and report["memory_locked"] is $locks
PYTHON
