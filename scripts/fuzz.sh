#!/usr/bin/env bash
# Builds the fuzzer with clang++ and lets it look for inputs that break a promise of the library.
#
#   ./scripts/fuzz.sh [SECONDS]     looks for so long, 60 seconds unless told otherwise
#   ./scripts/fuzz.sh --coverage    shows how much of the library the inputs at hand reach
#
# It starts from the inputs in tests/fuzz/corpus and collects new ones in build/fuzz/corpus. An
# input that breaks a promise is kept in build/fuzz/findings and its path printed; the exit status
# is then not zero.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
coverage=OFF
case ${1:-} in
  --coverage) coverage=ON ;;
  '') ;;
  *[!0-9]*)
    echo "usage: fuzz.sh [SECONDS | --coverage]" >&2
    exit 2
    ;;
  *) seconds=$1 ;;
esac

build=build/fuzz
./scripts/dependencies.sh build fuzz
mkdir -p $build/corpus $build/findings

if [ $coverage = ON ]; then
  binary=build/fuzz-coverage
else
  binary=$build
fi
cmake -S tests/fuzz -B $binary -G Ninja -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORV_WERROR=ON -DORV_FUZZ_COVERAGE=$coverage >/dev/null
cmake --build $binary

if [ $coverage = ON ]; then
  LLVM_PROFILE_FILE=$binary/inputs.profraw \
    $binary/device_tree_fuzzer -runs=0 -verbosity=0 tests/fuzz/corpus $build/corpus
  llvm-profdata merge -sparse $binary/inputs.profraw -o $binary/inputs.profdata
  llvm-cov report $binary/device_tree_fuzzer -instr-profile=$binary/inputs.profdata \
    device_tree/*.cpp device_tree/*.h platform/*.cpp
  exit
fi

log=$build/fuzz.log
echo "Looking for $seconds seconds; $log tells how it goes."
if UBSAN_OPTIONS=print_stacktrace=1 $build/device_tree_fuzzer -max_total_time="$seconds" \
  -max_len=2048 -timeout=20 -print_final_stats=1 -artifact_prefix=$build/findings/ \
  $build/corpus tests/fuzz/corpus 2>$log; then
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' $log)
  echo "$runs inputs, none broke a promise."
else
  grep -vE '^#|^[[:space:]]*NEW_FUNC' $log >&2
  echo "An input broke a promise. Run it again with" >&2
  echo "  $build/device_tree_fuzzer $(sed -n 's/.*Test unit written to //p' $log)" >&2
  exit 1
fi
