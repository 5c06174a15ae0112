#!/usr/bin/env bash
# Builds the driver for the Windows kernel.
#
#   cmake/windows_driver.sh OUTPUT_DIRECTORY
#
# Compiles every source of the driver with clang against the mingw-w64 DDK headers, links kvr64.sys with lld and
# passes it through check_driver_image.py. The same sources give the same bytes wherever they are built: no time
# stamp and no path of the machine gets into the image. KVR_JOBS sets how many compilers run at once.
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: $0 OUTPUT_DIRECTORY" >&2
    exit 2
fi
mkdir -p "$1"
out=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."
. cmake/windows_image.sh

mapfile -t sources < <(find swap redirect config driver control platform/windows -name '*.cpp' | LC_ALL=C sort)
build_image "$out/kvr64.sys" "Kvr volume filter driver" "${sources[@]}"
python3 cmake/check_driver_image.py --fix-checksum --forbid "$root" --version "$(cat VERSION)" "$out/kvr64.sys"
