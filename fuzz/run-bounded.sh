#!/usr/bin/env bash
# Builds the libFuzzer harness with clang (address + undefined sanitizers, halting) and runs
# it for a bounded time on a scratch copy of fuzz/corpus and fuzz/regressions.
#
#   fuzz/run-bounded.sh [seconds]        default 120; FUZZ_SECONDS overrides too
#
# Environment: FUZZ_BUILD_DIR (default build/fuzz), FUZZ_WORK_DIR (default a temp dir),
# FUZZ_JOBS (parallel fuzzing processes, default 1).
# Exit status 0 when the run ended without a finding. On a crash, a sanitizer report, a
# failed harness check or a timeout the input is left in FUZZ_WORK_DIR/artifacts and the
# script fails: copy that file into fuzz/regressions/ (the replay test then runs it in every
# ctest run) and fix the cause.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(dirname "$here")"
seconds="${1:-${FUZZ_SECONDS:-120}}"
build="${FUZZ_BUILD_DIR:-$root/build/fuzz}"
jobs="${FUZZ_JOBS:-1}"

runtime_present() {
  command -v clang++ >/dev/null 2>&1 &&
    ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1
}
if ! runtime_present; then
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
    echo "run-bounded: installing clang and its libFuzzer runtime" >&2
    apt-get update -qq && apt-get install -y -qq clang libclang-rt-14-dev >/dev/null
  fi
  runtime_present || { echo "run-bounded: clang++ with libFuzzer is required" >&2; exit 2; }
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DVELTRISCA_SANITIZE=address,undefined -DVELTRISCA_BUILD_FUZZ=ON \
  -DVELTRISCA_BUILD_TESTS=OFF -DVELTRISCA_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target vt_fuzz -j"${CMAKE_BUILD_PARALLEL_LEVEL:-2}"

work="${FUZZ_WORK_DIR:-$(mktemp -d -t vt-fuzz.XXXXXX)}"
mkdir -p "$work/corpus" "$work/artifacts"
cp "$here"/corpus/* "$work/corpus/"
if compgen -G "$here/regressions/*" >/dev/null; then cp "$here"/regressions/* "$work/corpus/"; fi

export ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"

args=(-max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -print_final_stats=1
      -artifact_prefix="$work/artifacts/")
if [ "$jobs" -gt 1 ]; then args+=(-jobs="$jobs" -workers="$jobs"); fi

status=0
(cd "$work" && "$build/fuzz/vt_fuzz" "${args[@]}" "$work/corpus") || status=$?
if [ "$status" -ne 0 ] || compgen -G "$work/artifacts/*" >/dev/null; then
  echo "run-bounded: the fuzzer found a problem; inputs in $work/artifacts:" >&2
  ls -l "$work/artifacts" >&2 || true
  exit 1
fi
echo "run-bounded: no findings in ${seconds}s (work directory $work)"
