#!/usr/bin/env bash
# Builds kvrctl.exe into the directory given and checks that it needs nothing but the system's libraries.
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
