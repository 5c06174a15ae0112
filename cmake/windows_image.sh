# Compiles and links images for the Windows kernel with clang, lld and the mingw-w64 DDK headers. Sourced by
# whoever builds one, after compile.sh and from the project's root.
root=$PWD
clang=${KVR_CLANG:-clang++-14}
lld=${KVR_LLD:-ld.lld-14}
sysroot=/usr/x86_64-w64-mingw32
libstdcxx=$(ls -d /usr/lib/gcc/x86_64-w64-mingw32/*-win32/include/c++ 2>/dev/null | tail -n 1)
if ! command -v "$clang" >/dev/null || ! command -v "$lld" >/dev/null || [ -z "$libstdcxx" ]; then
    echo "$0: needs clang-14, lld-14, g++-mingw-w64-x86-64-win32 and mingw-w64-x86-64-dev" >&2
    exit 2
fi

# Freestanding, and nothing that wants a runtime: the kernel is all there is to link against. A dynamic
# initialiser would never run, and a frame beyond 2 KiB is too much for a kernel stack shared by a whole device
# stack. Without asynchronous unwind tables there is no .pdata, and an exception could not cross the code.
flags=(
    --target=x86_64-w64-mingw32 -std=c++20 -O2 -ffreestanding -fms-extensions
    -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-stack-protector -mno-stack-arg-probe
    -mno-red-zone -fno-ident -fasynchronous-unwind-tables -ffunction-sections -fdata-sections
    "-ffile-prefix-map=$root=."
    -nostdinc -nostdinc++
    -isystem "$libstdcxx" -isystem "$libstdcxx/x86_64-w64-mingw32"
    -isystem "$("$clang" -print-resource-dir)/include" -isystem "$sysroot/include" -isystem "$sysroot/include/ddk"
    -I. -Iplatform/windows
    -DNTDDI_VERSION=0x06010000 -D_WIN32_WINNT=0x0601 -DWINVER=0x0601
    -D__INTRINSIC_DEFINED_InterlockedBitTestAndSet -D__INTRINSIC_DEFINED_InterlockedBitTestAndReset
    -Wall -Wextra -Werror -Werror=global-constructors -Wframe-larger-than=2048
)

# build_image IMAGE DESCRIPTION SOURCE...
# Objects go into the folder `objects` beside the image. The image is no library: a loader would call the entry of one as something else. Relocations
# stay, the kernel moves drivers.
build_image() {
    local image=$1 description=$2 objects
    shift 2
    objects=$(dirname "$image")/objects
    compiler=("$clang" "${flags[@]}")
    compile_all "$objects" "$@"
    cmake/version_resource.sh "$(basename "$image")" driver "$description" "$objects/version.o"
    (cd "$objects" && "$lld" -m i386pep --subsystem native:6.1 -e DriverEntry --image-base 0x140000000 \
        --no-insert-timestamp --disable-auto-import --fatal-warnings --gc-sections -s --Xlink=-driver:wdm \
        "-L$sysroot/lib" "${compiled[@]}" version.o -lntoskrnl -o "$image")
}
