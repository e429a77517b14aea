#!/bin/sh
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# papers_test.sh VERSION
#
# The packages say several things a second time; they say the same as the sources.
set -eu
version=$1
source=$(cd "$(dirname "$0")/../../.." && pwd)
failures=0

expect_equal() { # WHAT FOUND EXPECTED
    if [ "$2" != "$3" ]; then
        printf '%s: found "%s", expected "%s"\n' "$1" "$2" "$3"
        failures=$((failures + 1))
    fi
}

cd "$source/packaging"
directory=$(sed -n 's|^constexpr const char\* cDirectory = "\(/.*\)/";$|\1|p' "$source/src/PipeAddress.cpp")
expect_equal 'directory of postinst' "$(sed -n 's/^directory=//p' libvornnet1.postinst)" "$directory"
expect_equal 'directory of postrm' "$(sed -n 's/^directory=//p' libvornnet1.postrm)" "$directory"
expect_equal 'entries of tmpfiles' "$(sed '/^#/d' libvornnet1.tmpfiles)" "d $directory 1770 root vorn -
r! $directory/*"
expect_equal 'entries of sysusers' "$(sed '/^#/d' libvornnet1.sysusers)" 'g vorn - -'

expect_equal 'entries of the relay'"'"'s sysusers' "$(sed '/^#/d' ../relay/vornnet-relay.sysusers)" \
    'u vornrelay - "vornnet relay" /var/lib/vornnet-relay
m vornrelay vorn'
for unit in vornnet-relay vornnet-relay-redirect; do
    grep -q "^ExecStart=@CMAKE_INSTALL_FULL_BINDIR@/vornnet-relay " "../relay/$unit.service" ||
        { echo "$unit.service starts another program"; failures=$((failures + 1)); }
done
expect_equal 'pipes that the relay may create' \
    "$(sed -n 's/^ReadWritePaths=\([^ ]*\).*/\1/p' ../relay/vornnet-relay.service)" "$directory"

dpkg-parsechangelog -l changelog >/dev/null
expect_equal 'version of the changelog' "$(dpkg-parsechangelog -l changelog -S Version | sed 's/-.*//')" "$version"

for script in libvornnet1.postinst libvornnet1.postrm vornnet-relay.postinst vornnet-relay.postrm vornnet-relay.prerm; do
    sh -n "$script" || failures=$((failures + 1))
done
exit $((failures > 0))
