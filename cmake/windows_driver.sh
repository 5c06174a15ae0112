#!/usr/bin/env bash
# Builds the driver for the Windows kernel.
#
#   cmake/windows_driver.sh OUTPUT_DIRECTORY
#
# Compiles every source of the driver with clang against the mingw-w64 DDK headers, links kvr64.sys with lld and
# passes it through check_driver_image.py. The same sources give the same bytes wherever they are built: no time
# stamp and no path of the machine gets into the image.
set -euo pipefail

. "$(dirname "$0")/compile.sh"
output_folder "$@"
cd "$(dirname "$0")/.."
. cmake/windows_image.sh

mapfile -t sources < <(find swap redirect config driver control platform/windows -name '*.cpp' | LC_ALL=C sort)
build_image "$out/kvr64.sys" "Kvr volume filter driver" "${sources[@]}"
python3 cmake/check_driver_image.py --fix-checksum --forbid "$root" --version "$(cat VERSION)" "$out/kvr64.sys"
