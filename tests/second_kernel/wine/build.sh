#!/usr/bin/env bash
# Builds what plays stories on Wine's kernel.
#
#   tests/second_kernel/wine/build.sh OUTPUT_DIRECTORY
#
# kvrstory.sys, the harness driver with every story in it, and kvrplay.exe, which has a boot of a story played.
set -euo pipefail
. "$(dirname "$0")/../../../cmake/compile.sh"
output_folder "$@"
cd "$(dirname "$0")/../../.."
. cmake/windows_image.sh

mapfile -t sources < <(find tests/second_kernel/{common,stories,wine} -name '*.cpp' ! -name kvrplay.cpp |
    LC_ALL=C sort)
build_image "$out/kvrstory.sys" "Kvr stories on a second kernel" "${sources[@]}" platform/windows/seh.cpp
x86_64-w64-mingw32-g++-win32 -std=c++20 -O2 -Wall -Wextra -Werror -municode -static -I. \
    tests/second_kernel/wine/kvrplay.cpp -o "$out/kvrplay.exe"
