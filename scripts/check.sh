#!/usr/bin/env bash
# Installs what is missing and checks the sources: formatting, clang-tidy, cppcheck. Changes nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/dependencies.sh build test check bench
mapfile -t sources < <(git ls-files '*.cpp')
mapfile -t headers < <(git ls-files '*.h')

echo "Formatting"
clang-format --dry-run --Werror "${sources[@]}" "${headers[@]}"

cmake -S . -B build/check -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
  -DORV_BUILD_BENCHMARKS=ON >/dev/null
cmake --build build/check --target orv_monitoring_proto >/dev/null

echo "clang-tidy"
mapfile -t compiled < <(python3 -c '
import json, sys
root = sys.argv[1]
for entry in json.load(open("build/check/compile_commands.json")):
    if entry["file"].endswith(".cpp") and not entry["file"].startswith(root + "/build/"):
        print(entry["file"])' "$PWD" | sort -u)
printf '%s\0' "${compiled[@]}" | xargs -0 -n 1 -P "$(nproc)" clang-tidy --quiet -p build/check \
  2> >(grep -v 'warnings generated' >&2)

echo "cppcheck"
cppcheck --quiet --error-exitcode=1 --std=c++17 --enable=warning,performance,portability \
  --inline-suppr --suppress=missingInclude --suppress=missingIncludeSystem -I . \
  device_tree platform examples
echo "All checks passed"
