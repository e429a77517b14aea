#!/bin/bash
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# Run by clean_root_test.sh, as root of a new Debian that has this in /packages. It may do there what it likes.
set -euo pipefail

directory=/opt/vorn/hostmgr/var/lib/kestrel/rendez
all_packages=(libvornnet1 libvornnet1-dbgsym libvornnet-dev libvornnotify1 libvornnotify1-dbgsym
    libvornnotify-dev vornnet-tools vornnet-tools-dbgsym vornnet-relay vornnet-relay-dbgsym vornnet-doc)

fail() {
    printf 'FAILED: %s\n' "$*"
    exit 1
}

expect_equal() { # WHAT FOUND EXPECTED
    [[ $2 == "$3" ]] || fail "$1: found \"$2\", expected \"$3\""
}

quietly() {
    "$@" >/tmp/log 2>&1 || { cat /tmp/log; fail "$*"; }
}

show() { # COMMAND...
    printf '   $ %s\n' "$*"
}

as() { # USER COMMAND...
    local user=$1
    shift
    setpriv --reuid="$user" --regid="$user" --init-groups -- "$@"
}

# Everything but the records of the package tools and what the linker's and the shells' caches are made of.
snapshot() {
    find / -xdev \( -path /proc -o -path /dev -o -path /packages -o -path /tmp -o -path /run \
        -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache -o -path /var/log \) -prune -o -print |
        grep -v -x -e /etc/ld.so.cache -e '/etc/.*-' -e '/etc/.*\.lock' -e /etc/.pwd.lock | sort
    cat /etc/passwd /etc/group /etc/shadow /etc/gshadow
}

install_packages() { # DIRECTORY VERSION
    quietly apt-get -o Dpkg::Use-Pty=0 install -y --no-install-recommends "/packages/$1"/*.deb
    local package
    for package in "${all_packages[@]}"; do
        expect_equal "state of $package" "$(dpkg-query -W -f '${db:Status-Status} ${Version}' "$package")" \
            "installed $2"
    done
    expect_equal 'changed files' "$(dpkg --verify "${all_packages[@]}")" ''
}

check_set_up() {
    getent group vorn >/dev/null || fail 'no group vorn'
    expect_equal "owner and mode of $directory" "$(stat -c '%U:%G %a' "$directory")" 'root:vorn 1770'
    expect_equal 'owner and mode above it' "$(stat -c '%U:%G %a' "${directory%/*}")" 'root:root 755'
    ldconfig -p >/tmp/log
    grep -q 'libvornnet\.so\.1 ' /tmp/log || fail 'the linker does not know the library'
    grep -q 'libvornsupt\.so\.1 ' /tmp/log || fail 'the linker does not know the support library'
    grep -q 'libvornnotify\.so\.1 ' /tmp/log || fail 'the linker does not know the library of deliveries'
}

# What the manual says of the pipe directory, followed by alice, who becomes root with what stands in for sudo.
follow_chapter() {
    sed -n '/^## The pipe directory/,/^## /{/^```sh/,/^```/{/^```/!p}}' /packages/installing.md >/tmp/recipe
    [[ -s /tmp/recipe ]] || fail 'the manual has no recipe for the pipe directory'
    (
        sudo() { "$@"; }
        USER=alice
        set -e
        . /tmp/recipe
    ) || fail 'the recipe of the manual has failed'
    id -nG alice | tr ' ' '\n' | grep -q -x vorn || fail 'alice is not in the group'
}

directory_state() { stat -c '%i %U:%G %a %w' "$directory" "${directory%/*}"; }

# With the packages, the recipe adds a user to the group and does not touch the directory.
check_chapter_after_installation() {
    local before
    before=$(directory_state)
    show '(as alice) the recipe of the manual'
    follow_chapter
    follow_chapter
    expect_equal 'the pipe directory' "$(directory_state)" "$before"
}

# Without them, it sets up the same as they do.
check_chapter_without_packages() {
    useradd --create-home alice
    follow_chapter
    expect_equal "owner and mode of $directory" "$(stat -c '%U:%G %a' "$directory")" 'root:vorn 1770'
    as alice touch "$directory/pipe" || fail 'a member of the group cannot create pipes'
    quietly userdel -r alice
    groupdel vorn
    rm -r /opt/vorn
}

# The relay comes with its user, who may create pipes, and its directories. It is told by its configuration what to do.
check_relay() {
    id -nG vornrelay | tr ' ' '\n' | grep -q -x vorn || fail 'the relay may not use pipes'
    expect_equal 'state of the relay' "$(stat -c '%U:%G %a' /var/lib/vornnet-relay)" 'vornrelay:vornrelay 700'
    local status=0
    show 'vornnet relay doctor'
    vornnet relay doctor >/tmp/doctor || status=$?
    sed 's/^/   /' /tmp/doctor
    expect_equal 'exit status of the doctor of the relay' "$status" 2
    grep -q '/etc/vornnet/relay.conf: there is no such file' /tmp/doctor || fail 'the doctor does not miss the configuration'
    ldd /usr/lib/*/libvornnet.so.1 /usr/lib/*/libvornnotify.so.1 /usr/bin/vornnet >/tmp/log
    ! grep -q libnats /tmp/log || fail 'something but the relay is linked with libnats'
}

make_users() {
    local user
    for user in alice bob mallory; do
        useradd --create-home --shell /bin/sh "$user"
    done
    usermod -aG vorn bob
}

remove_users() {
    local user
    for user in alice bob mallory; do
        quietly userdel -r "$user"
    done
}

# A system as small as this has no such file, and so no address for localhost.
provide_hosts() {
    mv /etc/hosts /tmp/hosts 2>/dev/null || true
    echo '127.0.0.1 localhost' >/etc/hosts
}

restore_hosts() {
    rm /etc/hosts
    mv /tmp/hosts /etc/hosts 2>/dev/null || true
}

check_doctor() {
    local status=0
    show '(as alice) vornnet doctor'
    as alice vornnet doctor | sed 's/^/   /'
    show '(as mallory, who is not in the group) vornnet doctor'
    as mallory vornnet doctor >/tmp/doctor || status=$?
    sed 's/^/   /' /tmp/doctor
    expect_equal 'exit status of the doctor' "$status" 5
    grep -q '^problem *pipe-directory: ' /tmp/doctor || fail 'the doctor does not say that it is the pipe directory'
}

start_sink() { # USER OPTION...
    local user=$1
    shift
    # Emptied by this process, so that nothing is read there of the sink before.
    : >/tmp/sink
    # Not by "as": the process to be killed is the sink, not a shell around it.
    setpriv --reuid="$user" --regid="$user" --init-groups -- vornnet sink "$@" >>/tmp/sink &
    sink=$!
    until grep -q '^address ' /tmp/sink; do
        kill -0 "$sink" 2>/dev/null || fail "the sink has ended: $(cat /tmp/sink)"
        sleep 0.05
    done
    address=$(sed -n 's/^address //p' /tmp/sink | tail -n 1)
}

await_notification() { # NUMBER
    until grep -q "^notification $1:" /tmp/sink; do
        kill -0 "$sink" 2>/dev/null || break
        sleep 0.05
    done
    grep -q "^notification $1:" /tmp/sink || fail "notification $1 did not arrive: $(cat /tmp/sink)"
}

check_notification() { # KIND
    start_sink alice --type "$1" --content int,string --count 1
    show "(as alice) vornnet sink --type $1 --content int,string --count 1"
    show "(as alice) vornnet notify $address 0 12 int:5 string:hello"
    as alice vornnet notify "$address" 0 12 int:5 string:hello | sed 's/^/   notify: /'
    wait "$sink" || fail "the sink has ended with $?"
    sed 's/^/   sink:   /' /tmp/sink
    grep -q -x 'notification 1: handle 0, id 12, int 5, string "hello"' /tmp/sink || fail 'another notification came'
}

check_protection() {
    start_sink alice --type pipe --count 1
    local pipe=$directory/${address#pipe:}
    [[ -S $pipe ]] || fail "$pipe is no socket"
    ! as mallory vornnet notify "$address" 0 1 >/tmp/log 2>&1 || fail 'a stranger may notify'
    ! as mallory ls "$directory" >/tmp/log 2>&1 || fail 'a stranger may list the pipes'
    ! as bob rm -f "$pipe" >/tmp/log 2>&1 || fail "a member of the group may remove another one's pipe"
    expect_equal 'notifications so far' "$(grep -c '^notification' /tmp/sink || true)" 0
    kill "$sink"
    wait "$sink" || true
}

# A program that runs goes on running, and can be reached at the same address.
check_upgrade() {
    start_sink alice --type pipe --count 2
    quietly as alice vornnet notify "$address" 0 1
    await_notification 1
    chmod 0777 "$directory"
    install_packages second 1.0.0-2
    check_set_up
    quietly as alice vornnet notify "$address" 0 2
    wait "$sink" || fail "the sink has ended with $?"
    expect_equal 'notifications' "$(grep -c '^notification' /tmp/sink)" 2
}

leave_dead_pipe() {
    start_sink alice --type pipe
    kill -9 "$sink"
    { wait "$sink" || true; } 2>/dev/null
    dead=$directory/${address#pipe:}
    [[ -S $dead ]] || fail 'no dead pipe was left'
}

check_boot() {
    command -v systemd-tmpfiles >/dev/null || return 0
    leave_dead_pipe
    systemd-tmpfiles --create --remove libvornnet1.conf
    [[ -S $dead ]] || fail 'a dead pipe was removed while programs may be running'
    systemd-tmpfiles --create --remove --boot libvornnet1.conf
    [[ ! -e $dead ]] || fail 'a dead pipe was left at boot'
    check_set_up
}

check_end() {
    leave_dead_pipe
    remove_users
    restore_hosts
    quietly apt-get remove -y "${all_packages[@]}"
    [[ -d $directory ]] || fail 'removing without purging has removed the pipe directory'
    getent group vorn >/dev/null || fail 'removing without purging has removed the group'
    quietly dpkg --purge "${all_packages[@]}"
    snapshot >/tmp/after
    diff /tmp/before /tmp/after || fail 'purging has left something'
}

# What somebody else has put there is neither removed nor left without its group.
check_end_with_foreign_file() {
    install_packages second 1.0.0-2
    check_set_up
    : >"$directory/notes"
    quietly apt-get purge -y "${all_packages[@]}"
    [[ -f $directory/notes ]] || fail 'purging has removed a file of somebody else'
    getent group vorn >/dev/null || fail 'purging has removed the group of a directory that is left'
    rm "$directory/notes"
    install_packages second 1.0.0-2
    quietly apt-get purge -y "${all_packages[@]}"
    snapshot >/tmp/after
    diff /tmp/before /tmp/after || fail 'purging has left something'
}

check_chapter_without_packages
snapshot >/tmp/before
install_packages first 1.0.0-1
check_set_up
check_relay
make_users
check_chapter_after_installation
provide_hosts
check_doctor
for kind in pipe socket udp; do
    check_notification "$kind"
done
check_protection
check_upgrade
check_boot
check_end
check_end_with_foreign_file
