#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# networks_test.sh wireguard|stunnel|ipv6 BUILD_DIRECTORY
#
# Tries what docs/networks.md recommends, with the files in examples/deploy, between two hosts: the service's, in which
# this runs, and the client's, both network namespaces, joined by a cable. Ends with 77 where they cannot be created.
set -euo pipefail

if [[ -z ${VORNTEST_HOST-} ]]; then
    # shellcheck source=script/place.sh
    . "$(dirname "$0")/../../../script/place.sh"
    options=$(namespace_options) || { echo 'no namespaces can be created here'; exit 77; }
    # shellcheck disable=SC2086 # several options
    VORNTEST_HOST=service exec unshare $options --pid --fork --kill-child --mount-proc "$0" "$@"
fi

recipe=$1
vornnet=$2/tools/vornnet
deploy=$(cd "$(dirname "$0")/../../../examples/deploy" && pwd)
secret=a-text-that-nobody-else-may-read

# The end of this process, the first of its namespace, ends all others.
mount -t tmpfs none /mnt
mount -t tmpfs none /run
cd /mnt
fail() { printf '%s\n' "$*"; tail -n 20 /mnt/*.log; exit 1; }

unshare --net --mount sleep infinity &
client_host=$!
until [[ $(readlink /proc/$client_host/ns/net) != "$(readlink /proc/self/ns/net)" ]]; do :; done
on_client() { nsenter --target "$client_host" --net --mount --wdns=/mnt -- "$@"; }

ip link set lo up
on_client ip link set lo up
ip link add cable0 type veth peer name cable1
ip link set cable1 netns "$client_host"
ip address add 192.0.2.1/24 dev cable0
ip link set cable0 up
on_client ip address add 192.0.2.2/24 dev cable1
on_client ip link set cable1 up

await() { # FILE TEXT
    local end=$((SECONDS + 60))
    until grep -q -e "$2" -- "$1" 2>/dev/null; do
        ((SECONDS < end)) || fail "\"$2\" has not come in $1"
        sleep 0.02
    done
}

await_listener() { # HOST... ADDRESS
    local end=$((SECONDS + 60))
    until "${@:1:$#-1}" ss --listening --no-header --numeric --tcp "src ${!#}" | grep -q .; do
        ((SECONDS < end)) || fail "nobody listens at ${!#}"
        sleep 0.02
    done
}

# Everything that leaves the service's host by the cable.
watch_cable() {
    python3 -c '
import socket
packets = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
packets.bind(("cable0", 0))
with open("cable.bin", "wb", 0) as file:
    print("watching", flush=True)
    while True:
        file.write(packets.recv(65535))
' >watch.log 2>&1 &
    await watch.log watching
}

check_cable() { # what the recipe itself sends must be there, or nobody has watched
    [[ -s cable.bin ]] || fail 'nothing has left by the cable'
    ! grep -q "$secret" cable.bin || fail 'the text can be read on the cable'
}

# A request and its reply, from the client's host to the service's.
request() { # SERVICE-ADDRESS ADDRESS-FOR-CLIENT
    "$vornnet" serve "socket:$1" --expect string --reply int:7 --count 1 >serve.log 2>&1 &
    local serve=$!
    await_listener env "$1"
    [[ $(on_client "$vornnet" connect --timeout 30 "socket:$2" "string:$secret" --expect int 2>connect.log) == 'int 7' ]] ||
        fail 'no reply'
    wait "$serve"
    grep -q "$secret" serve.log || fail 'the request did not arrive'
}

# A notification, from the service's host to the client's sink.
notify() { # ADDRESS-OF-SINK
    on_client "$vornnet" sink --type socket --content string --count 1 >sink.log 2>&1 &
    local sink=$!
    await sink.log "socket:$1"
    "$vornnet" notify --timeout 30 "socket:$1" 0 12 "string:$secret" >notify.log 2>&1 || fail 'the notification failed'
    wait "$sink"
    grep -q "$secret" sink.log || fail 'the notification did not arrive'
}

try_wireguard() {
    if ! ip link add probe0 type wireguard 2>/dev/null; then
        # The same protocol as a program; it needs the tunnel device.
        ip tuntap add dev probe0 mode tun 2>/dev/null || { echo 'neither WireGuard nor tunnels here'; exit 77; }
        echo 'the kernel has no WireGuard: wireguard-go takes its place'
    fi
    ip link delete probe0
    mkdir service client
    local service_key client_key
    service_key=$(wg genkey)
    client_key=$(wg genkey)
    for side in service client; do
        sed "s|SERVICE_PRIVATE_KEY|$service_key|; s|CLIENT_PRIVATE_KEY|$client_key|
            s|SERVICE_PUBLIC_KEY|$(wg pubkey <<<"$service_key")|; s|CLIENT_PUBLIC_KEY|$(wg pubkey <<<"$client_key")|" \
            "$deploy/vorn0-$side.conf" >"$side/vorn0.conf"
        chmod 600 "$side/vorn0.conf"
    done
    wg-quick up ./service/vorn0.conf >wireguard-service.log 2>&1 || fail 'wg-quick'
    on_client mount -t tmpfs none /run # or the two programs would have one control socket
    on_client wg-quick up ./client/vorn0.conf >wireguard-client.log 2>&1 || fail 'wg-quick'
    # A sink publishes the address that "localhost" has on its host.
    echo '10.88.0.2 localhost' >hosts
    on_client mount --bind /mnt/hosts /etc/hosts
    watch_cable
    request 10.88.0.1:7000 10.88.0.1:7000
    notify 10.88.0.2:5023
    check_cable
}

try_stunnel() {
    echo "vorn:$(head -c 32 /dev/urandom | od -An -v -tx1 | tr -d ' \n')" >vorn.psk
    chmod 600 vorn.psk
    for side in service client; do
        sed "s|/etc/stunnel/vorn.psk|/mnt/vorn.psk|" "$deploy/stunnel-$side.conf" >"stunnel-$side.conf"
    done
    stunnel stunnel-service.conf >stunnel-service.log 2>&1 &
    on_client stunnel stunnel-client.conf >stunnel-client.log 2>&1 &
    await_listener env 192.0.2.1:7443
    await_listener env 127.0.0.1:5023
    await_listener on_client 192.0.2.2:7444
    await_listener on_client 127.0.0.1:7000
    watch_cable
    request 127.0.0.1:7000 127.0.0.1:7000
    echo '127.0.0.1 localhost' >hosts
    on_client mount --bind /mnt/hosts /etc/hosts
    notify 127.0.0.1:5023
    check_cable
    # What docs/networks.md warns of: the sink has ended, and the relay answers for it.
    "$vornnet" notify --confirm --timeout 30 socket:127.0.0.1:5023 0 13 string:x >confirm.log 2>&1 || fail 'refused'
    grep -q delivered confirm.log || fail 'stunnel does not answer for the sink any more'
}

# Starts the service of a socket unit as systemd does.
start_unit() { # NAME HOST...
    local listen command
    listen=$(sed -n 's/^ListenStream=//p' "$deploy/$1.socket")
    command=$(sed -n 's/^ExecStart=//p' "$deploy/$1.service")
    # shellcheck disable=SC2086 # program and argument
    "${@:2}" systemd-socket-activate --listen="$listen" $command >"$1.log" 2>&1 &
    await_listener "${@:2}" "$listen"
}

try_ipv6() {
    ip address add 2001:db8::1/64 dev cable0 nodad
    on_client ip address add 2001:db8::2/64 dev cable1 nodad
    ip address delete 192.0.2.1/24 dev cable0
    start_unit vorn-ipv6-service env
    start_unit vorn-ipv6-client on_client
    watch_cable
    request 127.0.0.1:7000 127.0.0.1:7000
    grep -q "$secret" cable.bin || fail 'the request went another way'
}

"try_$recipe"
echo "$recipe: passed"
