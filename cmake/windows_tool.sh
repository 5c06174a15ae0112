#!/usr/bin/env bash
# Builds kvrctl.exe for Windows.
#
#   cmake/windows_tool.sh OUTPUT_DIRECTORY
#
# Statically linked: nothing but the system's own libraries is needed beside it. The sources are those of kvrctl, but
# for the few files that reach the system.
set -euo pipefail

. "$(dirname "$0")/compile.sh"
output_folder "$@"
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

mingw=${KVR_MINGW:-x86_64-w64-mingw32-g++}
if ! command -v "$mingw" >/dev/null || [ ! -d /usr/include/CLI ] || [ ! -d /usr/include/nlohmann ] ||
    [ ! -f /usr/include/utf8.h ]; then
    echo "$0: needs g++-mingw-w64-x86-64-win32, libcli11-dev, nlohmann-json3-dev and libutfcpp-dev" >&2
    exit 2
fi

# The header-only libraries, and nothing else of the host's include folder.
headers="$out/headers"
mkdir -p "$headers"
ln -sfn /usr/include/CLI "$headers/CLI"
ln -sfn /usr/include/nlohmann "$headers/nlohmann"
ln -sfn /usr/include/utf8 "$headers/utf8"
ln -sfn /usr/include/utf8.h "$headers/utf8.h"

flags=(
    -std=c++20 -O2 -Wall -Wextra -Werror -municode -ffunction-sections -fdata-sections
    "-ffile-prefix-map=$root=." "-ffile-prefix-map=$out=out"
    "-DKVR_VERSION=\"$(cat VERSION)\""
    -DUNICODE -D_UNICODE -D_WIN32_WINNT=0x0601 -DNOMINMAX -DWIN32_LEAN_AND_MEAN
    -I. -isystem "$headers"
)
objects="$out/tool-objects"
mapfile -t sources < <(
    ls client/*.cpp posix/utf.cpp tool/*.cpp tool/kvrctl/*.cpp |
        grep -vE '_linux\.cpp$|/(world_hosted|wire_channel)\.cpp$' | LC_ALL=C sort)

compiler=(${CMAKE_CXX_COMPILER_LAUNCHER:-} "$mingw" "${flags[@]}")
compile_all "$objects" "${sources[@]}"

cmake/version_resource.sh kvrctl.exe program "Kvr control tool" "$objects/version.o"
(cd "$objects" && "$mingw" -municode -static -s -Wl,--gc-sections,--no-insert-timestamp "${compiled[@]}" version.o -lntdll \
    -o "$out/kvrctl.exe")
