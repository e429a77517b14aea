#!/bin/sh
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# Every file of the tree says under which licence it is.
set -eu
source=$(cd "$(dirname "$0")/../../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A copy has nothing that git ignores, and no owner that git mistrusts.
cd "$source"
if git -c safe.directory="$source" rev-parse --verify -q HEAD >/dev/null 2>&1; then
    git -c safe.directory="$source" ls-files --cached --others --exclude-standard -z
else
    find . -path ./build -prune -o -type f -print0
fi >"$work/list"
mkdir "$work/tree"
tar --null --files-from "$work/list" --ignore-failed-read -cf - 2>/dev/null | tar -C "$work/tree" -xf -
reuse --root "$work/tree" lint >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
