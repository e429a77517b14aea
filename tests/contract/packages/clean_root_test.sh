#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# clean_root_test.sh BUILD_DIRECTORY PACKAGES
#
# Installs, uses, upgrades and purges what script/package has put into PACKAGES, in two new Debian roots: one as small
# as can be, and one that has what systemd makes users and directories with. Needs root, or subordinate user ids.
set -euo pipefail

# Second life, in name spaces of its own.
if [[ ${1-} == --in-namespace ]]; then
    work=$2 archive=$3
    root=$work/root
    mkdir -- "$root"
    tar -C "$root" --exclude=./dev -xf "$archive"
    mkdir -p -- "$root/dev" "$root/packages"
    for device in null zero random urandom; do
        : >"$root/dev/$device"
        mount --bind "/dev/$device" "$root/dev/$device"
    done
    mount -t proc proc "$root/proc"
    ip link set lo up
    cp -r -- "$work/first" "$work/second" "$work/in_root.sh" "$work/installing.md" "$root/packages"
    exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/root DEBIAN_FRONTEND=noninteractive \
        chroot "$root" /packages/in_root.sh
fi

build=$(realpath -- "$1")
packages=$(realpath -- "$2")
here=$(dirname -- "$(realpath -- "${BASH_SOURCE[0]}")")
source_dir=$(realpath -- "$here/../../..")

work=$(mktemp -d)
in_namespace() {
    if ((EUID == 0)); then
        unshare --mount --pid --net --fork --kill-child "$@"
    else
        mmdebstrap --unshare-helper unshare --net "$@"
    fi
}
clean_up() {
    # The files of the roots belong to others than the one who runs the test.
    ((EUID == 0)) || mmdebstrap --unshare-helper rm -rf -- "$work"/*/root
    rm -rf -- "$work"
}
trap clean_up EXIT
chmod 755 "$work"

say() { printf -- '-- %s\n' "$*"; }
run_quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }; }

# What the packages are linked with has to be there, for there is no network in the roots.
linked_with() {
    local package
    for package in "$packages"/*.deb; do
        dpkg-deb --field "$package" Depends
    done | grep -o 'lib[^ ,]*' | grep -v '^libvorn' | sort -u | paste -sd,
}

# Such a root is the same for every run with the same packages, and fetching it is the only thing that needs a network.
fetch_root() { # NAME PACKAGES
    local archive=$build/roots/$1.tar
    mkdir -p -- "$build/roots"
    if [[ -f $archive && $(cat -- "$archive.packages") == "$2" ]]; then
        return
    fi
    say "fetching the root \"$1\""
    mmdebstrap --quiet --variant=minbase --format=tar --include="$2" bookworm "$archive.part"
    mv -- "$archive.part" "$archive"
    printf %s "$2" >"$archive.packages"
}

make_upgrade() {
    say 'packages of a later version'
    {
        sed '1s/-1)/-2)/' <(sed '/^ -- /q' "$source_dir/packaging/changelog")
        echo
        cat "$source_dir/packaging/changelog"
    } >"$work/changelog"
    run_quietly "$source_dir/script/package" --build "$build" --output "$work/second" --changelog "$work/changelog" \
        --no-docs --no-lint
}

# What a program needs that is to be linked, and what a debugger needs, without installing either here.
check_development() {
    say 'a program linked with what the packages have'
    local directory=$work/unpacked package library id
    for package in "$packages"/libvorn*.deb; do
        dpkg-deb --extract "$package" "$directory"
    done
    run_quietly cmake -S "$here/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$directory/usr"
    run_quietly cmake --build "$work/consumer"
    # Where nothing has told the linker of the libraries, one of them does not find the other by itself.
    local -x LD_LIBRARY_PATH
    LD_LIBRARY_PATH=$(echo "$directory"/usr/lib/*-linux-*)
    [[ $("$work/consumer/program") == '7 seven, 0 queued' ]]
    ldd "$work/consumer/program" >"$work/log"
    for library in "$directory"/usr/lib/*/*.so.1; do
        grep -q "${library##*/} => $library " "$work/log" || { cat "$work/log"; exit 1; }
        id=$(readelf -n "$library" | sed -n 's/.*Build ID: //p')
        [[ -f $directory/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug ]] ||
            { echo "no debug symbols of $library"; exit 1; }
    done
}

run_in_root() { # NAME
    say "in the root \"$1\""
    mkdir -- "$work/$1"
    cp -r -- "$packages" "$work/$1/first"
    cp -r -- "$work/second" "$work/$1/second"
    cp -- "$here/in_root.sh" "$source_dir/docs/installing.md" "$work/$1"
    chmod 777 "$work/$1"
    in_namespace "$here/clean_root_test.sh" --in-namespace "$work/$1" "$build/roots/$1.tar"
}

libraries=$(linked_with)
fetch_root plain "$libraries"
fetch_root systemd "systemd-standalone-sysusers,systemd-standalone-tmpfiles,netbase,$libraries"
make_upgrade
check_development
run_in_root plain
run_in_root systemd
say 'all as it should be'
