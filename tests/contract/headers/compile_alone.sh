#!/bin/sh
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# compile_alone.sh DIRECTORY COMPILER STANDARD SOURCE_DIRECTORY HEADER...
#
# Compiles each header by itself, twice over, and without a warning. Then puts these objects and one with all headers
# together, where what a header defines twice in one program shows. Works in DIRECTORY; $LAUNCHER, when set, is what the
# compiler is started through (ccache).
set -eu
directory=$1
compiler=$2
standard=$3
source=$4
shift 4

command -v "$compiler" >/dev/null || { echo "$compiler is missing: see script/setup"; exit 1; }
# Both compilers of Debian 12 know C++23 under its name as a draft.
[ "$standard" = 23 ] && standard=2b

mkdir -p "$directory"
cd "$directory"
failed=0
rm -f -- *.o
printf '#include <%s>\n' "$@" >all
for header in "$@" all; do
    printf '#include "%s"\n#include "%s"\n' "$header" "$header" >"$header.cpp"
    ${LAUNCHER:-} "$compiler" "-std=c++$standard" -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror \
        "-I$source/include" "-I$source/notify" "-I$source/support" -c -o "$header.o" "$header.cpp" ||
        { echo "$header does not compile alone"; failed=1; }
done
[ "$failed" = 0 ] && ld -r -o together *.o
