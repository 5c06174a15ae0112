#!/usr/bin/env bash
# Builds kvrctl.exe for Windows.
#
#   cmake/windows_tool.sh OUTPUT_DIRECTORY
#
# Statically linked: nothing but the system's own libraries is needed beside it. The sources are those of kvrctl, but
# for the few files that reach the system. KVR_JOBS sets how many compilers run at once.
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: $0 OUTPUT_DIRECTORY" >&2
    exit 2
fi
root=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$1"
out=$(cd "$1" && pwd)
cd "$root"

compiler=${KVR_MINGW:-x86_64-w64-mingw32-g++}
if ! command -v "$compiler" >/dev/null || [ ! -d /usr/include/CLI ] || [ ! -d /usr/include/nlohmann ] ||
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
    -DUNICODE -D_UNICODE -D_WIN32_WINNT=0x0601 -DNOMINMAX -DWIN32_LEAN_AND_MEAN
    -I. -isystem "$headers"
)
objects="$out/tool-objects"
mkdir -p "$objects"
mapfile -t sources < <(
    ls client/*.cpp posix/utf.cpp tool/*.cpp tool/kvrctl/*.cpp |
        grep -vE '_linux\.cpp$|/(world_hosted|wire_channel)\.cpp$' | LC_ALL=C sort)

running=0
for source in "${sources[@]}"; do
    if [ "$running" -ge "${KVR_JOBS:-$(nproc)}" ]; then
        wait -n
        running=$((running - 1))
    fi
    ${CMAKE_CXX_COMPILER_LAUNCHER:-} "$compiler" "${flags[@]}" -c "$source" -o "$objects/${source//\//_}.o" &
    running=$((running + 1))
done
while [ "$running" -gt 0 ]; do
    wait -n
    running=$((running - 1))
done

cmake/version_resource.sh kvrctl.exe program "Kvr control tool" "$objects/version.o"
linked=("${sources[@]//\//_}")
(cd "$objects" && "$compiler" -municode -static -s -Wl,--gc-sections,--no-insert-timestamp "${linked[@]/%/.o}" version.o -lntdll \
    -o "$out/kvrctl.exe")
