#!/usr/bin/env bash
# Makes the zip file and unpacks it, and installs, as those do who get them.
#   unpack.sh BUILD_FOLDER CPACK FOLDER TOOL_PREFIX
# Ends with 1 when the zip file has other files than files.txt lists (the checked build also needs libssp), or the
# installed DLL's debug information does not tell where a function comes from.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
cd "$1"
cpack=$2 folder=$3 tools=$4
rm -rf "$folder"
mkdir -p "$folder/unpacked"
"$cpack" -B "$folder/packing" >"$folder/cpack.log"
(cd "$folder/unpacked" && cmake -E tar xf "$folder"/packing/vexel-storage-*.zip --format=zip)
(cd "$folder"/unpacked/vexel-storage-* && mv -- * .. && rmdir "$PWD")
(cd "$folder/unpacked" && find . -type f ! -name libssp-0.dll -printf '%P\n' | sed 's/-[a-z]*\(\.cmake\)$/-*\1/' | LC_ALL=C sort) |
  diff "$here/files.txt" -

cmake --install . --prefix "$folder/installed" >"$folder/install.log"
dll=$folder/installed/bin/vexelstorage.dll
"${tools}objdump" -h "$dll" | grep -q gnu_debuglink
address=$("${tools}nm" "$dll.debug" | sed -n 's/ T OpenVexelPackage$//p')
"${tools}addr2line" -e "$dll.debug" "0x$address" | grep 'open_package.cpp:[1-9]'
