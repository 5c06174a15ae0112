#!/usr/bin/env bash
# Builds kvrctl.exe into the directory given, checks that it needs nothing but the system's libraries, and runs it under
# Wine on a computer where the driver is not loaded.
set -euo pipefail
if [ $# -ne 1 ]; then
    echo "usage: $0 OUTPUT_DIRECTORY" >&2
    exit 2
fi
here=$(cd "$(dirname "$0")" && pwd)
"$here/../windows_tool.sh" "$1"
tool=$1/kvrctl.exe

libraries=$(x86_64-w64-mingw32-objdump -p "$tool" | sed -n 's/.*DLL Name: //p' | tr 'A-Z\n' 'a-z ')
for library in $libraries; do
    case $library in
        advapi32.dll | kernel32.dll | msvcrt.dll | ntdll.dll) ;;
        *) echo "kvrctl.exe wants $library"; exit 1 ;;
    esac
done

WINEPREFIX=$(mktemp -d)
export WINEPREFIX WINEDEBUG=-all DISPLAY=""
trap 'wineserver -k 2>/dev/null || true; rm -rf "$WINEPREFIX"' EXIT

# expect CODE WORDS ARGUMENTS...: the exit code, and the words in what it printed
expect() {
    local code=$1 words=$2 output result=0
    shift 2
    output=$(timeout 120 wine "$tool" "$@" 2>&1) || result=$?
    if [ "$result" -ne "$code" ] || [[ $output != *"$words"* ]]; then
        echo "kvrctl.exe $* ended with $result and said: $output"
        exit 1
    fi
}
timeout 120 wine wineboot -i >/dev/null 2>&1 || true
expect 0 "Usage: kvrctl" --help
expect 0 "kvrctl swap make HarddiskVolume2 2G" swap make --help
expect 3 "kvrctl: the driver is not loaded (there is no device \\\\.\\kvr)" status
expect 3 "the driver is not loaded" config get
expect 2 "--machine is for hosted machines" --machine x status
text=$WINEPREFIX/$(printf 't\303\244xt')
printf '[Global]\r\nProtection=1\r\n[FV1]\r\n' >"$text"
expect 1 ":3: error: '[FV1]' is no section head" config check "$text"
