#!/usr/bin/env bash
# Builds kvrprove.exe, the native program that plays a proof's acts inside Windows.
#
#   cmake/windows_prove.sh OUTPUT_DIRECTORY
#
# Nothing but ntdll is there when it runs: no runtime, no start-up code, no other library; the check at the end sees
# to that.
set -euo pipefail

. "$(dirname "$0")/compile.sh"
output_folder "$@"
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
mingw=${KVR_MINGW:-x86_64-w64-mingw32-g++}
flags=(
    -std=c++20 -O2 -Wall -Wextra -Werror -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics
    -fno-stack-protector -mno-stack-arg-probe -fno-ident -fno-use-cxa-atexit -ffunction-sections
    "-ffile-prefix-map=$root=." "-ffile-prefix-map=$out=out"
    -DUNICODE -D_UNICODE -D_WIN32_WINNT=0x0601 -DNOMINMAX -DWIN32_LEAN_AND_MEAN -I.
)
objects="$out/prove-objects"
mapfile -t sources < <(ls prove/*.cpp prove/windows/*.cpp | LC_ALL=C sort)
compiler=(${CMAKE_CXX_COMPILER_LAUNCHER:-} "$mingw" "${flags[@]}")
compile_all "$objects" "${sources[@]}"
cmake/version_resource.sh kvrprove.exe program "Kvr proof inside Windows" "$objects/version.o"
(cd "$objects" && "$mingw" -nostdlib -nostartfiles -static -s -Wl,--gc-sections,--no-insert-timestamp \
    -Wl,--subsystem,native:6.1 -Wl,--entry,NtProcessStartup "${compiled[@]}" version.o -lntdll -o "$out/kvrprove.exe")
libraries=$(x86_64-w64-mingw32-objdump -p "$out/kvrprove.exe" | sed -n 's/.*DLL Name: //p' | tr 'A-Z\n' 'a-z ')
if [ "$libraries" != "ntdll.dll " ]; then
    echo "$0: kvrprove.exe wants more than ntdll: $libraries" >&2
    exit 1
fi
