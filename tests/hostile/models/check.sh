#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# Explores every interleaving of one model with spin: the model itself must hold, each of its broken variants must be
# caught, and every step that it names must stand in the sources under that name.
# Usage: check.sh MODEL.pml SOURCE_DIRECTORY
set -euo pipefail

model=$(realpath "$1")
sources=$(realpath "$2")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

search() { # compiler options -- run options
    local compiler=()
    while [ "$1" != -- ]; do
        compiler+=("$1")
        shift
    done
    shift
    gcc -w -DMEMLIM=4096 "${compiler[@]}" -o pan pan.c
    ./pan -m1000000 "$@" >>pan.log 2>&1
    if grep -q 'max search depth too small\|out of memory' pan.log; then
        cat pan.log >&2
        exit 2
    fi
}

explore() { # prints "holds" or "fails"
    : >pan.log
    spin -a "$@" "$model" >spin.log 2>&1 || { cat spin.log >&2; exit 2; }
    search -DSAFETY -DNOCLAIM --
    if grep -q '^ltl' "$model"; then
        search -- -a -f
    fi
    if grep -q 'errors: [1-9]' pan.log; then echo fails; else echo holds; fi
}

failures=0
expect() { # expected what, spin options...
    local expected=$1 found
    shift
    found=$(explore "$@")
    printf '%s %s: %s (%s states)\n' "$(basename "$model")" "${*:-as it is}" "$found" \
        "$(sed -n 's/^ *\([0-9.e+]*\) states, stored.*/\1/p' pan.log | head -n 1)"
    if [ "$found" != "$expected" ]; then
        cat pan.log
        failures=$((failures + 1))
    fi
}

expect holds
for variant in $(grep -o "BROKEN_[A-Z_]*" "$model" | sort -u); do # names without blanks
    expect fails "-D$variant"
done

while read -r step; do
    plain=${step%%;*}
    plain=${plain##*::} # a member of a class inside the source stands there under its last name
    if ! grep -rqF "$plain(" "$sources"; then
        echo "step $plain is not in $sources"
        failures=$((failures + 1))
    fi
done < <(grep -o 'step: [^*]*' "$model" | sed 's/^step: //; s/ *$//' | sort -u)

exit "$((failures > 0))"
