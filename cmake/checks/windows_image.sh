#!/usr/bin/env bash
# Builds the driver for the Windows kernel into the directory given, passes it through the gate, shows that a copy of
# the sources in another folder gives the same bytes, and that the gate refuses each kind of bad image that can be
# made from the good one.
set -euo pipefail
if [ $# -ne 1 ]; then
    echo "usage: $0 OUTPUT_DIRECTORY" >&2
    exit 2
fi
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
"$here/../windows_driver.sh" "$1"

elsewhere=$(mktemp -d)
trap 'rm -rf "$elsewhere"' EXIT
mkdir "$elsewhere/copy of the sources"
(cd "$root" && cp -r VERSION cmake formats platform swap redirect config driver control "$elsewhere/copy of the sources")
"$elsewhere/copy of the sources/cmake/windows_driver.sh" "$elsewhere/built" >/dev/null
if ! cmp "$1/kvr64.sys" "$elsewhere/built/kvr64.sys"; then
    echo "$0: the same sources gave other bytes in another folder" >&2
    exit 1
fi
echo "built again in another folder: the same bytes, sha256 $(sha256sum <"$1/kvr64.sys" | cut -d ' ' -f 1)"

python3 "$root/tests/platform/driver_image_gate_test.py" "$here/../check_driver_image.py" "$1/kvr64.sys"
