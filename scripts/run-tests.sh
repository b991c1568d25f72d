#!/usr/bin/env bash
# Builds the project in each configuration below and runs its tests there:
#   build/       the regular build: every suite
#   build-asan/  AddressSanitizer and UndefinedBehaviorSanitizer: every suite
#   build-tsan/  ThreadSanitizer: the tests labelled tsan, when CMakeLists.txt has OPCUA_TSAN
#   build-fuzz/  clang with libFuzzer: the tests labelled fuzz, when CMakeLists.txt has OPCUA_FUZZ
# A build that fails does not stop the next one. The output ends with one line per build
# and then "N passed, N failed" over all builds, where a build that does not configure,
# compile or find its tests counts as one failure. Exits 1 when anything failed.
# Usage: scripts/run-tests.sh [--no-setup] [--no-asan]
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

setup=1 asan=1
for a in "$@"; do
  case "$a" in
    --no-setup) setup=0 ;;
    --no-asan) asan=0 ;;
    *) echo "unknown option $a" >&2; exit 2 ;;
  esac
done

if [ "$setup" = 1 ]; then
  bash scripts/setup-deps.sh || exit 1
fi

jobs=$(nproc 2>/dev/null || echo 2)
# Python's byte code would land beside the test scripts, in the source tree.
export PYTHONDONTWRITEBYTECODE=1
launcher=()
if command -v ccache >/dev/null 2>&1; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

summary=()
passed_total=0 failed_total=0

note() { summary+=("$(printf '%-11s %s' "$1" "$2")"); }
broken() { note "$1" "$2"; failed_total=$((failed_total + 1)); }
has_option() { grep -qw "$1" CMakeLists.txt; }

# Ninja where it is installed, for a directory configured anew.
generator_for() {
  if [ ! -f "$1/CMakeCache.txt" ] && command -v ninja >/dev/null 2>&1; then echo "-GNinja"; fi
}

# What a test run may leave in the source tree: the build directories and what set-up
# installs. Anything else that appears during the run is a test writing where it must not.
tree_state() {
  git status --porcelain --ignored --untracked-files=all 2>/dev/null \
    | grep -v -E '^!! (build[^/]*/|tests/interop/(node/)?node_modules/)' | sort
}

# run_build DIR TITLE BUILD_TYPE TARGET LABEL [cmake arguments...]
# Configures DIR, builds TARGET (everything when empty), runs the tests labelled LABEL
# (every test when empty; "!LABEL" runs all but those) and adds the build's line, with
# its time, to the summary.
run_build() {
  local dir=$1 title=$2 type=$3 target=$4 label=$5; shift 5
  echo "== $dir: $title =="
  local started=$SECONDS out
  # shellcheck disable=SC2046
  if ! out=$(cmake -S . -B "$dir" $(generator_for "$dir") -DCMAKE_BUILD_TYPE="$type" "${launcher[@]}" "$@" 2>&1); then
    echo "$out"
    broken "$dir" "failed to configure"
    return
  fi
  if ! cmake --build "$dir" -j "$jobs" ${target:+--target "$target"}; then
    broken "$dir" "failed to build${target:+ $target}"
    return
  fi

  local select=()
  case "$label" in
    "") ;;
    !*) select=(-LE "^${label#!}\$") ;;
    *) select=(-L "^$label\$") ;;
  esac
  local log=$dir/ctest.log
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300 "${select[@]}") 2>&1 | tee "$log"

  local line total failed
  line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n1)
  if [ -z "$line" ]; then
    broken "$dir" "no result from ctest${label:+ (are there tests labelled $label?)}"
    return
  fi
  failed=$(sed -E 's/.* ([0-9]+) tests? failed out of.*/\1/' <<<"$line")
  total=$(sed -E 's/.*out of ([0-9]+).*/\1/' <<<"$line")

  # Suites are the CTest labels; failures are counted per suite from ctest's list.
  local labels=() names failed_names l n count suites="" where=""
  failed_names=$(sed -n '/^The following tests FAILED:/,$p' "$log" \
                   | sed -nE 's/^[[:space:]]+[0-9]+ - (.*) \([^()]*\)$/\1/p')
  if [ -n "$label" ] && [ "${label#!}" = "$label" ]; then
    labels=("$label")
  else
    mapfile -t labels < <(cd "$dir" && ctest --print-labels | sed -n 's/^  *//p' | grep -v '^All Labels:' \
                            | grep -vx -- "${label#!}")
  fi
  for l in "${labels[@]}"; do
    suites+="${suites:+, }$l"
    [ -n "$failed_names" ] || continue
    names=$(cd "$dir" && ctest -N -L "^$l\$" | sed -nE 's/^ *Test +#[0-9]+: //p')
    count=0
    while IFS= read -r n; do
      grep -qxF -- "$n" <<<"$names" && count=$((count + 1))
    done <<<"$failed_names"
    [ "$count" -gt 0 ] && where+="${where:+, }$l $count"
  done
  note "$dir" "suites ${suites:-none}: $total tests, $((total - failed)) passed, $failed failed${where:+ ($where)}, $((SECONDS - started)) s"
  passed_total=$((passed_total + total - failed))
  failed_total=$((failed_total + failed))
}

tree_before=$(tree_state)

run_build build "regular build" RelWithDebInfo "" ""

if [ "$asan" = 0 ]; then
  note build-asan "not run: --no-asan"
else
  # Leak checking stays on; open62541 and protobuf free what they allocate. Unoptimised:
  # the sanitizers find the same faults, and the build takes half the time. The
  # interoperability suite runs the module's code that the other suites run, against a
  # server whose start costs seconds: the regular build runs it.
  ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1} \
    run_build build-asan "AddressSanitizer and UndefinedBehaviorSanitizer" Debug "" "!interop" \
      -DOPCUA_SANITIZE=ON -DOPCUA_BUILD_BENCH=OFF -DOPCUA_BUILD_INTEROP=OFF
fi

if ! has_option OPCUA_TSAN; then
  note build-tsan "not run: CMakeLists.txt has no OPCUA_TSAN option"
else
  run_build build-tsan "ThreadSanitizer" RelWithDebInfo tsan_tests tsan \
    -DOPCUA_TSAN=ON -DOPCUA_BUILD_BENCH=OFF
fi

if ! has_option OPCUA_FUZZ; then
  note build-fuzz "not run: CMakeLists.txt has no OPCUA_FUZZ option"
elif ! command -v clang++ >/dev/null 2>&1; then
  broken build-fuzz "not run: clang++ is not installed (scripts/setup-deps.sh installs it)"
else
  run_build build-fuzz "fuzz targets (clang, libFuzzer)" RelWithDebInfo fuzz_targets fuzz \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DOPCUA_FUZZ=ON -DOPCUA_BUILD_BENCH=OFF
fi

tree_after=$(tree_state)
if [ "$tree_before" != "$tree_after" ]; then
  broken source "the test run wrote into the source tree: $(comm -13 <(echo "$tree_before") <(echo "$tree_after") | tr '\n' ' ')"
fi

echo
echo "== summary =="
printf '%s\n' "${summary[@]}"
echo "$passed_total passed, $failed_total failed"
[ "$failed_total" -eq 0 ]
