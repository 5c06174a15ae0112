#!/usr/bin/env bash
# Builds kvrstories.exe, the host kernel and the stories as a program for Windows, which loads kvr64.sys; and of the
# same parts kvrgate.sys, through which other programs reach the driver on the host kernel.
#
#   tests/second_kernel/wine/build.sh OUTPUT_DIRECTORY
#
# With clang, which keeps a thread's variables in the system's own thread-local storage, until their destructors
# have run.
set -euo pipefail
. "$(dirname "$0")/../../../cmake/compile.sh"
output_folder "$@"
cd "$(dirname "$0")/../../.."
libstdcxx=$(ls -d /usr/lib/gcc/x86_64-w64-mingw32/*-posix/include/c++ 2>/dev/null | tail -n 1)
if [ -z "$libstdcxx" ]; then
    echo "$0: needs g++-mingw-w64-x86-64-posix" >&2
    exit 2
fi
library=${libstdcxx%/include/c++}
clang=("${KVR_CLANG:-clang++-14}" --target=x86_64-w64-mingw32)
compiler=(
    ${CMAKE_CXX_COMPILER_LAUNCHER:-} "${clang[@]}" -std=c++20 -O1 -Wall -Wextra -Werror -I. -Iplatform/host "-I$out/story-objects" -DKVR_POOL_PLAIN=1
    -nostdinc++ -isystem "$libstdcxx" -isystem "$libstdcxx/x86_64-w64-mingw32"
    -isystem /usr/x86_64-w64-mingw32/include/ddk -D__INTRINSIC_DEFINED_InterlockedBitTestAndSet
    -D__INTRINSIC_DEFINED_InterlockedBitTestAndReset -D_WIN32_WINNT=0x0602 -DNOMINMAX -DWIN32_LEAN_AND_MEAN
)

mapfile -t sources < <(find platform/host tests/second_kernel machine/files/share_access.cpp tests/doubles/played_files.cpp \
    platform/windows/layout_check.cpp -name '*.cpp' ! -path '*/host/os/*' ! -name linked_driver.cpp)
# The driver's imports, but for what its compiler asks for.
mkdir -p "$out/story-objects"
x86_64-w64-mingw32-objdump -p "$out/kvr64.sys" |
    sed -n 's/^\t[0-9a-f]*\t *[0-9]* *\([A-Z][A-Za-z0-9]*\).*/KERNEL_NAME(\1)/p' >"$out/story-objects/kernel_names.inc"
compile_all "$out/story-objects" "${sources[@]}"
# Links what is not called that.
link_without() {
    local object linked=() unwanted=$1
    shift
    for object in "${compiled[@]}"; do
        [[ $object =~ $unwanted ]] || linked+=("$out/story-objects/$object")
    done
    "${clang[@]}" -fuse-ld=lld-14 -static "-L$library" "${linked[@]}" -lntdll -lsynchronization -lwinpthread "$@"
}
link_without '_gate(_host)?\.cpp\.o$' -o "$out/kvrstories.exe"
link_without '_host_main\.cpp\.o$' -lntoskrnl -shared -Wl,--entry=GateEntry,--subsystem=native -o "$out/kvrgate.sys"
