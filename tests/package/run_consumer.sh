#!/usr/bin/env bash
# Installs orvale into a scratch prefix and builds and runs a host project against it through
# find_package; then configures the same project through add_subdirectory (building the library
# a second time would only repeat the build that produced this tree).
set -euo pipefail
source_dir=$1
binary_dir=$2
work="$binary_dir/package-test"
rm -rf "$work"
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

cmake --install "$binary_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$source_dir/tests/package/consumer" -B "$work/installed" -G Ninja \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$work/prefix" "${launcher[@]}" >/dev/null
cmake --build "$work/installed" >/dev/null
"$work/installed/consumer"

cmake -S "$source_dir/tests/package/consumer" -B "$work/subdirectory" -G Ninja \
    -DCMAKE_BUILD_TYPE=Release -DORVALE_SOURCE="$source_dir" "${launcher[@]}" >/dev/null
