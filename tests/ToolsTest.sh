#!/usr/bin/env bash
# Tests the tools as their users run them: ToolsTest.sh VE-RTCHECK VE-JITTER [EMULATOR...]
set -euo pipefail

rtcheck=("${@:3}" "$1")
jitter=("${@:3}" "$2")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

fail() {
    printf 'FAILED: %s\n' "$*"
    cat "$folder/out" "$folder/err"
    exit 1
}

# expect CODES PATTERN COMMAND...: the exit code is one of them, and what is written has a line that matches.
expect() {
    local codes=$1 pattern=$2 code=0
    shift 2
    "$@" >"$folder/out" 2>"$folder/err" || code=$?
    [[ " $codes " == *" $code "* ]] || fail "exit code $code instead of $codes: $*"
    cat "$folder/out" "$folder/err" | grep -qE -- "$pattern" || fail "no '$pattern' from: $*"
}

# is_json EXPRESSION: the output is JSON, here `it`, of which this is true.
is_json() {
    python3 -c "import json, sys; it = json.load(open(sys.argv[1])); assert ($1)" "$folder/out" || fail "not so: $1"
}

# Wrong command lines: the words that name what is wrong, then the arguments.
while IFS='|' read -r pattern arguments; do
    # shellcheck disable=SC2086
    expect 2 "$pattern" "${jitter[@]}" $arguments
    grep -q '^usage: ve-jitter' "$folder/err" || fail "no usage after: $arguments"
    [ ! -s "$folder/out" ] || fail "an error on standard output after: $arguments"
done <<TABLE
unknown option --loud|--loud
unknown option -l|-l
unexpected argument 'loud'|loud
unknown option --p|--p 1000
--json takes no value|--json=1
--period needs a value|--period
--period is a whole number from 1 to [0-9]+, not '0'|--period 0
not '-5'|--period -5
not '10ms'|--period=10ms
not '99999999999999999999'|--period 99999999999999999999
--priority .* to 99, not '100'|--priority 100
--processor .* from 0 to [0-9]+, not '$(nproc --all)'|--processor $(nproc --all)
--seconds .* not ' ?'|--seconds=
has 0 periods|--period 2000000 --seconds 1
has 1000000000 periods|--period 1 --seconds 1000
--csv cannot write '/nowhere/file': No such file|--csv /nowhere/file
--svg needs a value that is not empty|--svg=
--csv needs a value|--csv --json
both write '/dev/null'|--csv /dev/null --svg /dev/null
TABLE
expect 2 'unknown option --loud' "${rtcheck[@]}" --loud
grep -q '^usage: ve-rtcheck' "$folder/err" || fail "no usage"
expect 0 '^usage: ve-rtcheck' "${rtcheck[@]}" --help
expect 0 '^usage: ve-jitter' "${jitter[@]}" --help
expect 1 'could not be written' sh -c '"$@" >/dev/full' - "${jitter[@]}" --help

# Whatever the machine permits is a row.
expect '0 1' 'A real-time service would (not )?run well' "${rtcheck[@]}"
expect '0 1' runs_well "${rtcheck[@]}" --json
is_json 'len(it["rows"]) == 9 and it["runs_well"] == all(row["state"] != "missing" for row in it["rows"])'

# So is a right that is missing.
without_rights=(prlimit --rtprio=0 --memlock=0 --msgqueue=0)
[ "$(id -u)" != 0 ] || without_rights+=(setpriv --bounding-set=-all --inh-caps=-all)
expect 1 runs_well "${without_rights[@]}" "${rtcheck[@]}" --json
is_json '{"real-time priority", "memory locking", "message queues"} <=
    {row["name"] for row in it["rows"] if row["state"] == "missing"}'
expect 1 'Operation not permitted' "${without_rights[@]}" "${jitter[@]}" --priority 1 --seconds 1

# What a run promises to write.
expect 0 '^1 s of 1 s' "${jitter[@]}" --period 5000 --seconds 1 --json --csv "$folder/csv" --svg "$folder/svg"
is_json 'it["calls"] == 200 and sum(bin["calls"] for bin in it["histogram"]) == 200'
is_json '0 <= it["lateness_us"]["min"] <= it["lateness_us"]["median"] <= it["lateness_us"]["max"]'
python3 - "$folder" <<'PYTHON' || fail "the files do not say what the report says"
import csv, json, sys
import xml.etree.ElementTree as xml
report = json.load(open(sys.argv[1] + "/out"))
rows = list(csv.DictReader(open(sys.argv[1] + "/csv")))
assert [int(row["period"]) for row in rows] == list(range(1, 201))
assert abs(max(float(row["lateness_us"]) for row in rows) - report["lateness_us"]["max"]) < 0.1
texts = [element.text for element in xml.parse(sys.argv[1] + "/svg").iter() if element.tag.endswith("text")]
assert f'{report["lateness_us"]["max"]:.1f} us' in texts and any("period 5000 us" in text for text in texts)
PYTHON

# An interrupt ends it early, and it reports all the same.
mkfifo "$folder/progress"
# The shell starts those in the background with interrupts ignored.
env --default-signal=INT "${jitter[@]}" --seconds 1000 >"$folder/out" 2>"$folder/progress" &
exec 3<"$folder/progress"
read -r <&3
kill -INT $!
cat <&3 >"$folder/err" &
wait %1 || fail "interrupted, it fails"
grep -qE ' calls, missed periods: ' "$folder/out" || fail "interrupted, it does not report"
