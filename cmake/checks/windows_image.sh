#!/usr/bin/env bash
# Builds the driver for the Windows kernel into the directory given, passes it through the gate, and shows that the
# gate refuses each kind of bad image that can be made from the good one.
set -euo pipefail
if [ $# -ne 1 ]; then
    echo "usage: $0 OUTPUT_DIRECTORY" >&2
    exit 2
fi
here=$(cd "$(dirname "$0")" && pwd)
"$here/../windows_driver.sh" "$1"
python3 "$here/../../tests/platform/driver_image_gate_test.py" "$here/../check_driver_image.py" "$1/kvr64.sys"
