# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash

# For script/demo: the third act. Two hosts, each with a network and a pipe directory of its own, and an engine between
# them; a service on the one, clients on the other. The functions and variables of script/demo are used.

hosts=(north south)
declare -A doors=() # by host, what a command begins with that is to run there
relay=$root/build/demo/relay/vornnet-relay
residents=(alice bob)

on_host() { # HOST COMMAND...
    # shellcheck disable=SC2086 # a program and its options
    ${doors[$1]} "${@:2}"
}

launch_on() { # HOST NAME COMMAND...
    # shellcheck disable=SC2086
    launch "$2" ${doors[$1]} "${@:3}"
}

# A host is a mount namespace with its own pipe directory, and a network with one cable, to the engine.
create_host() { # HOST NUMBER
    local host=$1 number=$2
    mkdir -p "$stage/pipes-$host" "$stage/state-$host"
    printf '127.0.0.1 localhost\n10.77.%s.1 engine\n' "$number" >"$stage/hosts-$host"
    launch "$host" unshare --mount --net "$BASH" -c 'mount --make-rprivate / && mount --bind "$1" "$2" &&
        mount --bind "$3" /etc/hosts && ip link set lo up && echo ready && exec sleep infinity' \
        host "$stage/pipes-$host" "$pipe_directory" "$stage/hosts-$host"
    doors[$host]="nsenter --net=/proc/${pids[$host]}/ns/net --mount=/proc/${pids[$host]}/ns/mnt --"
    await "host $host" has_line "$host" '^ready'
    ip link add "to-$host" type veth peer name engine netns "${pids[$host]}"
    ip address add "10.77.$number.1/24" dev "to-$host"
    ip link set "to-$host" up
    on_host "$host" ip address add "10.77.$number.2/24" dev engine
    on_host "$host" ip link set engine up
}

create_certificate() { # NAME OPTION...
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj "/CN=$1" \
        -keyout "$stage/$1.key" -out "$stage/$1.pem" "${@:2}" 2>"$stage/openssl.log" ||
        give_up "$(cat "$stage/openssl.log")"
}

create_certificates() {
    local name
    create_certificate ca
    for name in engine administrator "${hosts[@]}"; do
        create_certificate "$name" -CA "$stage/ca.pem" -CAkey "$stage/ca.key" \
            -addext "subjectAltName=DNS:$name" -addext basicConstraints=CA:FALSE
    done
}

# The block of each host is what the administrator's command prints.
configure_engine() {
    cat >"$stage/engine.conf" <<END
listen: 0.0.0.0:4222
jetstream { store_dir: "$stage/engine" }
tls { cert_file: "$stage/engine.pem", key_file: "$stage/engine.key", ca_file: "$stage/ca.pem", verify_and_map: true }
authorization { users: [
{ user: administrator }
$(cat "$stage"/permissions-* 2>/dev/null)
] }
END
}

engine_answers() { (: <>/dev/tcp/127.0.0.1/4222) 2>/dev/null; }

start_engine() {
    launch engine "$(PATH=$PATH:/usr/sbin command -v nats-server)" -c "$stage/engine.conf"
    await 'the engine' engine_answers
}

write_relay_settings() { # NAME LINE...
    printf '%s\n' "host = $1" 'servers = tls://engine:4222' "ca = $stage/ca.pem" "certificate = $stage/$1.pem" \
        "key = $stage/$1.key" "state-directory = $stage/state-$1" "${@:2}" >"$stage/$1.conf"
}

introduce_hosts() {
    printf '127.0.0.1 localhost engine\n' >"$stage/hosts"
    write_relay_settings administrator
    write_relay_settings north 'send-to = south' 'offer = dirwatch=pipe:dirwatch'
    write_relay_settings south 'reach = dirwatch@north'
    local -a add=("$relay" --config "$stage/administrator.conf" hosts add)
    "${add[@]}" north --send-to south --offer >"$stage/permissions-north"
    "${add[@]}" south --reach dirwatch@north >"$stage/permissions-south"
    configure_engine
    kill -HUP "${pids[engine]}"
}

relay_is_ready() { status_has "$1" '^ready  *true'; }

start_relay() { # HOST
    launch_on "$1" "relay-$1" "$relay" --config "$stage/$1.conf" run
    await "the relay of $1" relay_is_ready "$1"
}

start_resident() { # NAME
    local before
    before=$(grep -a -c '^client: subscribed' "$stage/$1.log" 2>/dev/null || true)
    launch_on south "$1" "$programs/leased_client" "$1" dirwatch@north "$stage/watched"
    await "client $1 to subscribe" has_lines "$1" '^client: subscribed' $((before + 1))
    addresses[$1]=$(sed -n 's/^client: subscribed as //p' "${logs[$1]}" | tail -n 1)
}

has_lines() { (($(grep -a -c -- "$2" "${logs[$1]}") >= $3)); }

# Nobody is there to print it yet.
perform_unseen() { # description command...
    local -a clients=()
    perform "$@"
}

await_residents() {
    local name
    for name in "${residents[@]}"; do
        show_new "$name"
    done
}

status_has() { # HOST PATTERN
    local status
    status=$(on_host "$1" "$relay" status 2>/dev/null) && grep -q "$2" <<<"$status"
}

# A relay notes what a client has printed a moment later; killed in between it delivers the event once more.
await_settled() {
    await 'the relay of south to note what was delivered' status_has south '^held  *0$'
    await 'the relay of north to have all stored' status_has north '^to south: 0 waiting'
}

kill_settled() { # NAME WHAT
    await_settled
    kill_one "$@"
}

perform_on_hosts() {
    local name place=north
    local -a clients=("${residents[@]}")
    launch_on north service "$programs/service" "$stage/watched"
    await 'the service to watch' has_line service '^service: watching'
    for name in "${residents[@]}"; do
        start_resident "$name"
        printf 'client %-7s subscribed at pipe:dirwatch@north as %s\n' "$name" "${addresses[$name]}"
    done
    perform 'echo draft > report.txt' write_file report.txt draft
    kill_settled engine 'the engine'
    perform_unseen 'echo more >> report.txt' append_file report.txt more
    start_engine
    await_residents
    kill_settled relay-south 'the relay of the clients'
    perform_unseen 'echo 1 > one' write_file one 1
    start_relay south
    await_residents
    kill_settled relay-north 'the relay of the service'
    perform_unseen 'echo 2 > two' write_file two 2
    start_relay north
    await_residents
    kill_settled alice 'client alice'
    clients=(bob)
    perform 'rm one' rm one
    perform 'rm two' rm two
    start_resident alice
    await_residents
}

# Both clients have one address, and the service lists them in the order in which they came.
compare_residents() {
    local name number=0
    for name in "${residents[@]}"; do
        stop "$name"
    done
    stop service
    print_heading
    for name in "${residents[@]}"; do
        number=$((number + 1))
        check_client "$name" "$events" left "$number"
    done
}

show_hosts() {
    printf 'a service on the host "north", clients on the host "south", an engine between them, and TLS\n'
    create_host north 1
    create_host south 2
    create_certificates
    configure_engine
    start_engine
    introduce_hosts
    start_relay north
    start_relay south
    perform_on_hosts
    compare_residents
    stop relay-north
    stop relay-south
}
