#!/bin/bash
# Goes on where the tests of every day stop: tries all that the harness of crash safety
# can enumerate, and after that random workloads and fuzzing, for some minutes each.
#
#   scripts/torture.sh [minutes [job...]]
#
# 10 minutes by default, and all jobs: the programs of tests/crash and tests/fault,
# random_threads_test (also with the thread sanitizer), recrypt_memory_test in 32 bits,
# random_kills of two programs of the tool, seeded_bugs, seeded_tool_bugs, and each fuzz
# target.
# What is enumerated comes on top of the minutes: with 0, only that is done.
#
# Prints one line a figure, also when it is stopped by a signal: of what was done until
# then. Ends with 0 when nothing was found and every seeded bug was.
# $TORTURE_SEED repeats the random choices of an earlier run.
set -u
cd "$(dirname "$0")/.." || exit 1

programs=(power_loss_test death_test failing_call_test failing_allocation_test lock_test
          tool_repair_test tool_crash_test tool_oracle_test random_threads_test)
# These enumerate, and are done in parts that keep all processors busy to the end. Of the
# twelve steps of sequences one is long: a number of parts that has no divisor in common
# with twelve gives each its share.
divided=" power_loss_test death_test failing_call_test failing_allocation_test tool_crash_test "
parts=7
mapfile -t fuzzers < <(basename -s .cpp fuzz/*_fuzz.cpp)
minutes=${1:-10}
[ $# -gt 0 ] && shift
[ $# -gt 0 ] || set -- "${programs[@]}" random_threads_test:tsan recrypt_memory_test:m32 \
    random_kills seeded_bugs seeded_tool_bugs "${fuzzers[@]}"
jobs=" $* "
seed=${TORTURE_SEED:-$(od -An -N3 -tu4 /dev/urandom | tr -d ' ')}
logs=$PWD/build/torture
rm -rf "$logs"
mkdir -p "$logs"
echo "seed $seed, $minutes minutes each, on $(nproc) processors"

# Those of the words that are among the jobs.
wanted() {
    local word
    for word; do
        [[ $jobs != *" $word "* ]] || echo "$word"
    done
}
prepare() {
    local preset=$1
    shift
    [ $# -eq 0 ] || { cmake --preset "$preset" && cmake --build --preset "$preset" --target "$@"; }
}
mapfile -t release < <(wanted "${programs[@]}")
[[ $jobs != *" seeded_bugs "* ]] || release=("${programs[@]}")
[[ $jobs != *" seeded_tool_bugs "* ]] || release=(all)
[[ $jobs != *" random_kills "* ]] || release+=(fstore call_trap)
mapfile -t tsan < <(wanted random_threads_test:tsan)
mapfile -t m32 < <(wanted recrypt_memory_test:m32)
mapfile -t fuzz < <(wanted "${fuzzers[@]}")
{
    prepare release "${release[@]}" && prepare tsan "${tsan[@]%:tsan}" &&
        prepare m32 "${m32[@]%:m32}" && prepare fuzz "${fuzz[@]}"
} >"$logs/build.log" 2>&1 || { tail -n 40 "$logs/build.log"; exit 1; }

divide() {
    local job part
    for job; do
        if [[ $divided == *" $job "* ]]; then
            for ((part = 1; part <= parts; part++)); do echo "$job:${part}of$parts"; done
        else
            echo "$job"
        fi
    done
}

# Writes NAME.log, and NAME.failed when the job finds something.
run() {
    local name=$1 command
    case $name in
        *:*of*)
            TORTURE_PART=${name#*:}
            export TORTURE_PART=${TORTURE_PART/of//}
            command=("build/release/bin/${name%:*}")
            ;;
        random_kills)
            command=(env "FSTORE_PROGRAM=$PWD/build/release/bin/fstore"
                     "CALL_TRAP=$PWD/build/release/lib/call_trap.so"
                     python3 -B tests/fstore/fstore_random_kill_test.py
                     RandomKillTest.test_two_programs_that_are_killed)
            ;;
        seeded_bugs | seeded_tool_bugs) command=("tests/crash/$name.py" build/release --all) ;;
        *_fuzz)
            [ "$minutes" -gt 0 ] || return 0  # libFuzzer takes 0 for ever
            mkdir -p "$logs/corpus/$name"
            command=("build/fuzz/bin/$name" "-max_total_time=$((minutes * 60))" "-seed=$seed"
                     -print_final_stats=1 "-artifact_prefix=$logs/$name-")
            # Each byte may ask for calls of the file system, and long inputs do what short
            # ones do, many times. To weigh features would take longer than to run inputs.
            case $name in
                store_calls_fuzz) command+=(-max_len=128 -entropic=0) ;;
                folder_*_fuzz) command+=(-max_len=256 -entropic=0) ;;
            esac
            [ ! -f "fuzz/$name.dict" ] || command+=("-dict=fuzz/$name.dict")
            command+=("$logs/corpus/$name" "$PWD/fuzz/corpus/$name")
            ;;
        *:tsan) command=(setarch --addr-no-randomize "build/tsan/bin/${name%:tsan}") ;;
        *:m32) command=("build/m32/bin/${name%:m32}") ;;
        *) command=("build/release/bin/$name") ;;
    esac
    TORTURE_FULL=1 TORTURE_SECONDS=$((minutes * 60)) TORTURE_SEED=$seed \
        "${command[@]}" >"$logs/$name.log" 2>&1 || touch "$logs/$name.failed"
}
export -f run
export logs minutes seed
unset GTEST_OUTPUT TORTURE_PART

# Figures of the same name are added up; fuzzers tell theirs otherwise.
print_figures() {
    {
        cat "$logs"/*.log | sed -n 's/^figure: //p'
        for name in "${fuzz[@]}"; do
            [ ! -f "$logs/$name.log" ] ||
                echo "fuzz executions, $name: $(sed -n 's/^stat::number_of_executed_units: *//p' \
                                                    "$logs/$name.log")"
        done
    } | awk -F': ' '{ sum[$1] += $2 } END { for (name in sum) print name ": " sum[name] }' | sort
    local name
    for name in seeded_bugs seeded_tool_bugs; do
        [ ! -f "$logs/$name.log" ] || grep -v '^figure: ' "$logs/$name.log"
    done
}

stop() {
    trap '' INT TERM
    kill -TERM -- "-$jobs_group"
    wait
    echo "stopped; until then:"
    print_figures
    exit 1
}
trap stop INT TERM
divide "$@" | setsid xargs -P "$(nproc)" -I{} bash -c 'run {}' &
jobs_group=$!
wait "$jobs_group"
trap - INT TERM
print_figures

failed=0
for found in "$logs"/*.failed; do
    [ -e "$found" ] || continue
    name=$(basename "$found" .failed)
    failed=$((failed + 1))
    echo "== $name has found something; the end of $logs/$name.log:"
    tail -n 40 "$logs/$name.log"
done
echo "violations: $failed"
[ "$failed" -eq 0 ]
