#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# Decodes every input of a corpus with the library and with the independent decoder, and compares what they print.
# Usage: compare.sh DECODING_PROGRAM DECODER.py CORPUS
set -euo pipefail

export VORNFUZZ_PRINT=1
compared=0
for input in "$3"/*; do
    if ! diff <("$1" "$input" 2>/dev/null) <(python3 "$2" "$input"); then
        echo "the two decoders differ on $input"
        exit 1
    fi
    compared=$((compared + 1))
done
echo "$compared inputs decoded alike"
[ "$compared" -gt 0 ]
