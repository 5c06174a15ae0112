#!/usr/bin/env bash
# Makes the version resource of one of the project's Windows images as an object file to link into it.
#
#   cmake/version_resource.sh FILE_NAME driver|program DESCRIPTION OUTPUT.o
#
# The version is the one line of the file VERSION. The same input gives the same bytes.
set -euo pipefail

if [ $# -ne 4 ]; then
    echo "usage: $0 FILE_NAME driver|program DESCRIPTION OUTPUT.o" >&2
    exit 2
fi
name=$1 description=$3 output=$4
case $2 in
    driver) type="FILETYPE 3 FILESUBTYPE 7" ;;  # VFT_DRV, VFT2_DRV_SYSTEM
    program) type="FILETYPE 1" ;;               # VFT_APP
    *) echo "$0: '$2' is neither driver nor program" >&2; exit 2 ;;
esac
version=$(cat "$(dirname "$0")/../VERSION")
if ! [[ $version =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]]; then
    echo "$0: VERSION holds '$version', not MAJOR.MINOR.PATCH" >&2
    exit 2
fi

# 0x40004 is VOS_NT_WINDOWS32; 0409 04B0 is English in Unicode.
x86_64-w64-mingw32-windres --output-format=coff --output="$output" <<RC
1 VERSIONINFO
FILEVERSION ${version//./,},0
PRODUCTVERSION ${version//./,},0
FILEFLAGSMASK 0x3F
FILEOS 0x40004
$type
BEGIN
    BLOCK "StringFileInfo"
    BEGIN
        BLOCK "040904B0"
        BEGIN
            VALUE "FileDescription", "$description"
            VALUE "FileVersion", "$version"
            VALUE "InternalName", "$name"
            VALUE "OriginalFilename", "$name"
            VALUE "ProductName", "Kvr"
            VALUE "ProductVersion", "$version"
        END
    END
    BLOCK "VarFileInfo"
    BEGIN
        VALUE "Translation", 0x0409, 0x04B0
    END
END
RC
