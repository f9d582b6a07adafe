#!/bin/sh
# run.sh: runs libFuzzer targets one after the other from their committed
# corpora, merges what adds coverage back into fuzz/corpus/<target>, and
# prints executions, coverage and corpus size per target.
#
#   fuzz/run.sh BUILD_DIR [TARGET...]      (default: every fuzz/fuzz_*.cpp)
#
# FUZZ_TIME   seconds per target (default 60; unset with FUZZ_RUNS alone)
# FUZZ_RUNS   executions per target; with FUZZ_TIME too, the first limit wins
# FUZZ_ARGS   further libFuzzer options (e.g. -max_len=65536)
# One fuzzer process at a time: the machine is shared.
set -u
here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: fuzz/run.sh BUILD_DIR [TARGET...]}
shift
[ $# -gt 0 ] || set -- $(cd "$here" && ls fuzz_*.cpp | sed 's/\.cpp$//')

limits=""
if [ -n "${FUZZ_RUNS:-}" ]; then
  limits="-runs=$FUZZ_RUNS"
  [ -n "${FUZZ_TIME:-}" ] && limits="$limits -max_total_time=$FUZZ_TIME"
else
  limits="-max_total_time=${FUZZ_TIME:-60}"
fi

work="$build/fuzz-work"
failed=""
summary=""

# Files and bytes of a corpus directory.
corpus_size() {
  printf '%s files, %s bytes' "$(find "$1" -type f | wc -l)" \
    "$(find "$1" -type f -exec cat {} + | wc -c)"
}

for t in "$@"; do
  bin="$build/bin/$t"
  corpus="$here/corpus/$t"
  if [ ! -x "$bin" ]; then
    echo "fuzz: $bin not built" >&2
    failed="$failed $t"
    continue
  fi
  mkdir -p "$corpus" "$work/$t/new" "$work/$t/artifacts"
  rm -f "$work/$t/new"/*
  before=$(corpus_size "$corpus")
  log="$work/$t/fuzz.log"
  echo "fuzz: $t ($limits) -> $log"
  # New inputs go to the first directory; the committed corpus is only read.
  # Once the peak RSS passes half of -rss_limit_mb, libFuzzer hands all free
  # memory back to the system every second; under ASan (some 400 MB before
  # the first input) that made a long campaign ten times slower at the
  # default limit of 2048 MB.
  # shellcheck disable=SC2086
  "$bin" $limits -print_final_stats=1 -timeout=20 -rss_limit_mb=4096 ${FUZZ_ARGS:-} \
    -artifact_prefix="$work/$t/artifacts/" "$work/$t/new" "$corpus" >"$log" 2>&1
  rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 | cut -d' ' -f2)
  ft=$(grep -o 'ft: [0-9]*' "$log" | tail -n 1 | cut -d' ' -f2)
  if [ $rc -ne 0 ]; then
    echo "fuzz: $t failed (exit $rc); reproducers in $work/$t/artifacts/" >&2
    grep -E 'ERROR|SUMMARY|fuzz check failed|leaked' "$log" | head -n 5 >&2
    failed="$failed $t"
  fi
  # Keep only the inputs that add coverage to the committed corpus.
  "$bin" -merge=1 ${FUZZ_ARGS:-} "$corpus" "$work/$t/new" >"$work/$t/merge.log" 2>&1 ||
    echo "fuzz: merge of $t failed, see $work/$t/merge.log" >&2
  after=$(corpus_size "$corpus")
  line=$(printf '%-20s execs %-10s (%s/s) cov %-6s ft %-6s corpus %s -> %s' \
    "$t" "${execs:-?}" "${rate:-?}" "${cov:-?}" "${ft:-?}" "$before" "$after")
  echo "$line"
  summary="$summary$line
"
done

printf '\n%s' "$summary"
if [ -n "$failed" ]; then
  echo "fuzz: failures:$failed" >&2
  exit 1
fi
