#!/bin/sh
# Checks that a plug-in binary exports exactly the two OFX entry points and
# nothing else: any further defined dynamic symbol could clash with another
# plug-in's in the host's process.
set -eu
binary="$1"
[ -f "$binary" ] || { echo "check_exports: no such file: $binary" >&2; exit 1; }
found=$(nm -D --defined-only "$binary" | awk '{print $NF}' | sort | tr '\n' ' ')
expected="OfxGetNumberOfPlugins OfxGetPlugin "
if [ "$found" != "$expected" ]; then
    echo "check_exports: $binary exports: $found" >&2
    echo "check_exports: expected exactly: $expected" >&2
    exit 1
fi
echo "check_exports: $binary exports exactly: $found"
