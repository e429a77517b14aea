#!/bin/sh
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# units_test.sh BUILD_DIRECTORY
#
# systemd understands the units in examples/deploy, and finds little that a service and a client may do beyond their work.
set -eu
build=$1
units=$(cd "$(dirname "$0")/../../../examples/deploy" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for unit in "$units"/*.service "$units"/*.socket; do
    sed "s|/usr/local/bin/|$build/examples/|" "$unit" >"$work/${unit##*/}"
done
systemd-analyze verify --man=no "$work"/* >"$work/complaints" 2>&1 || { cat "$work/complaints"; exit 1; }
# It says there also what it finds wrong with units of this host.
if grep "$work" "$work/complaints"; then
    exit 1
fi
for unit in dirwatch dirclient; do
    # Tenths of what it calls the exposure level, from 0 to 100.
    systemd-analyze security --no-pager --offline=true --threshold=10 "$work/$unit.service" >"$work/report" ||
        { cat "$work/report"; exit 1; }
    tail -n 1 "$work/report"
done
