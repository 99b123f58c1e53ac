#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan+UBSan) and runs each in turn for MINUTES minutes
# with its seed corpus and the dictionaries of its format family; then minimises what the run
# found back into fuzz/corpus/<target>/ and appends the run's figures to fuzz/runs.tsv.
#
#   scripts/fuzz.sh [MINUTES] [TARGET...]      (default: 10 minutes, every target)
#   SOVA_FUZZ_PARALLEL=2 scripts/fuzz.sh 30    two targets at a time
#
# Every run caps single allocations at 256 MB (-malloc_limit_mb), so an untrusted header that
# sizes an allocation is a finding. Findings (crash-*, leak-*, oom-*, timeout-*, malloc-limit
# reproducers) land in build-fuzz/findings/; fix each and keep its input, named after the
# fault, in fuzz/regressions/<target>/, which CI replays with the corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
MINUTES=${1:-10}
shift || true
ALL=(options opendescriptor inifile regions stream audiofile)
TARGETS=("${@:-${ALL[@]}}")
PARALLEL=${SOVA_FUZZ_PARALLEL:-1}
BUILD=${SOVA_FUZZ_BUILD:-$ROOT/build-fuzz}

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache
                                          -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
if [ ! -f "$BUILD/CMakeCache.txt" ]; then
    CC=clang CXX=clang++ cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DSOVA_BUILD_FUZZERS=ON -DSOVA_BUILD_TESTS=OFF -DSOVA_BUILD_BENCHMARKS=OFF \
        -DSOVA_SANITIZE=address,undefined "${launcher[@]}" >/dev/null
fi
cmake --build "$BUILD" -j"$(nproc)" --target "${TARGETS[@]/#/fuzz_}"

# One dictionary per target, made of its format families' token lists.
dicts_of() {
    case $1 in
        audiofile) echo riff aiff flac ogg mp4 id3 ;;
        stream) echo flac id3 mp4 ;;
        inifile) echo ini ;;
        *) echo "$1" ;;
    esac
}

mkdir -p "$BUILD/findings" "$BUILD/logs"
run_target() {
    local t=$1 work="$BUILD/corpus/$1" dict="$BUILD/dict/$1.dict" log="$BUILD/logs/$1.log"
    mkdir -p "$work" "$BUILD/dict"
    : >"$dict"
    for family in $(dicts_of "$t"); do cat "fuzz/dict/$family.dict" >>"$dict"; done
    local before start
    before=$(ls "$BUILD/findings" | grep -c "^$t-" || true)
    start=$(date +%s)
    # Runs over the repository's corpus and regressions too; new inputs go into $work only.
    local seeds=("fuzz/corpus/$t")
    [ -d "fuzz/regressions/$t" ] && seeds+=("fuzz/regressions/$t")
    "$BUILD/fuzz/fuzz_$t" "$work" "${seeds[@]}" -dict="$dict" \
        -max_total_time=$((MINUTES * 60)) -malloc_limit_mb=256 -rss_limit_mb=2048 -timeout=30 \
        -max_len=65536 -print_final_stats=1 -artifact_prefix="$BUILD/findings/$t-" \
        >"$log" 2>&1 || true
    local after runs cov ft seconds
    seconds=$(($(date +%s) - start))
    after=$(ls "$BUILD/findings" | grep -c "^$t-" || true)
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1 || true)
    cov=$( (grep -o 'cov: [0-9]*' "$log" || true) | tail -1 | cut -d' ' -f2)
    ft=$( (grep -o 'ft: [0-9]*' "$log" || true) | tail -1 | cut -d' ' -f2)
    if [ -z "$runs" ]; then
        echo "fuzz_$t did not run; see $log" >&2
        tail -3 "$log" >&2
        return 1
    fi
    # Minimise: keep the repository's files and add only what the run found that covers more.
    local merged="$BUILD/merged/$t"
    rm -rf "$merged" && mkdir -p "$merged"
    "$BUILD/fuzz/fuzz_$t" -merge=1 -malloc_limit_mb=256 -rss_limit_mb=2048 -timeout=30 \
        "$merged" "fuzz/corpus/$t" "$work" >>"$log" 2>&1 || true
    if [ -n "$(ls -A "$merged")" ]; then
        rm -rf "fuzz/corpus/$t" && mkdir -p "fuzz/corpus/$t" && cp "$merged"/* "fuzz/corpus/$t/"
    fi
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$(date -u +%FT%TZ)" "$t" "$seconds" \
        "${runs:-0}" "${cov:-0}" "${ft:-0}" $((after - before)) \
        "$(git rev-parse --short HEAD 2>/dev/null || echo -)" >>fuzz/runs.tsv
    echo "fuzz_$t: ${runs:-0} executions, cov ${cov:-0}, ft ${ft:-0}, $((after - before)) findings"
}

[ -f fuzz/runs.tsv ] || printf 'date\ttarget\tseconds\texecutions\tcov\tft\tfindings\tcommit\n' \
    >fuzz/runs.tsv
running=0
for t in "${TARGETS[@]}"; do
    if [ "$PARALLEL" -le 1 ]; then
        run_target "$t" || true
        continue
    fi
    run_target "$t" || true &
    running=$((running + 1))
    if [ "$running" -ge "$PARALLEL" ]; then
        wait -n || true
        running=$((running - 1))
    fi
done
wait

# Total time per target over every run recorded so far.
awk -F'\t' 'NR > 1 { s[$2] += $3; e[$2] += $4; f[$2] += $7 }
    END { for (t in s) printf "%-16s %6.1f min %12d executions %4d findings\n", t, s[t] / 60, e[t], f[t] }' \
    fuzz/runs.tsv | sort
