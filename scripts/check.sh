#!/usr/bin/env bash
# Installs what is missing and checks the sources: formatting, clang-tidy, cppcheck. Changes nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/dependencies.sh build test check bench web
mapfile -t sources < <(git ls-files '*.cpp')
mapfile -t headers < <(git ls-files '*.h')

echo "Formatting"
page=programs/collector/page
clang-format --dry-run --Werror "${sources[@]}" "${headers[@]}" $page.js \
  programs/collector/elements.js programs/collector/past.js
export NODE_PATH=/usr/share/nodejs  # where Debian has modules, whichever Node.js runs
css-beautify --indent-size 2 --end-with-newline --file $page.css | diff $page.css -
html-beautify --indent-size 2 --end-with-newline --wrap-line-length 100 --file $page.html |
  diff $page.html -

cmake -S . -B build/check -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
  -DORV_BUILD_BENCHMARKS=ON >/dev/null
cmake --build build/check --target orv_monitoring_proto >/dev/null

echo "clang-tidy"
run-clang-tidy -quiet -p build/check "^$PWD/(?!build/)" 2> >(grep -v 'warnings generated' >&2)

echo "cppcheck"
cppcheck --quiet --error-exitcode=1 --std=c++17 --enable=warning,performance,portability \
  --inline-suppr --suppress=missingInclude --suppress=missingIncludeSystem -I . \
  device_tree history platform reporting programs examples
echo "All checks passed"
