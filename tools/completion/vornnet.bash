# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# bash completion for vornnet(1)

_vornnet_options()
{
    case $1 in
        sink) echo --type --steady --callbacks --content --count --json --log-level --help ;;
        notify) echo --repeat --every --timeout --confirm --json --log-level --help ;;
        publish) echo --directory --values --json --log-level --help ;;
        subscribe) echo --start --since --position-file --content --words --count --json --log-level --help ;;
        connect) echo --service --expect --timeout --json --log-level --help ;;
        serve) echo --service --expect --reply --ack --error --lines --group --count --json --log-level --help ;;
        encode) echo --raw --json --log-level --help ;;
        decode) echo --types --hex --json --log-level --help ;;
        follow) echo --level --class --count --json --log-level --help ;;
        pipes) echo --clean --json --log-level --help ;;
        resolve) echo --json --log-level --help ;;
        ping) echo --timeout --json --log-level --help ;;
        bench) echo --local --seconds --json --log-level --help ;;
        top) echo --every --count --json --log-level --help ;;
        metrics) echo --log-level --help ;;
        doctor) echo --pid --monitor --strict --json --log-level --help ;;
        *) echo --help --version ;;
    esac
}

# Addresses contain colons, at which bash parts words unless completion takes care of it.
_vornnet_addresses()
{
    local directory=/opt/vorn/hostmgr/var/lib/kestrel/rendez pipe
    echo socket: udp: pipe:
    for pipe in "$directory"/*; do
        [[ -S $pipe ]] && echo "pipe:${pipe##*/}"
    done
}

_vornnet_words()
{
    local previous=$1 subcommand=$2 position=$3
    case $previous in
        --type) echo pipe socket udp ;;
        --content | --expect | --types) echo int short long bool string line ack ;;
        --start) echo next last oldest ;;
        --level) echo 0 1 2 3 4 5 6 7 8 9 ;;
        --log-level) echo -1 0 1 2 3 4 5 6 7 8 9 ;;
        --group) compgen -g ;;
        --callbacks | --class | --count | --repeat | --every | --timeout | --service | --pid | --since | --words) ;;
        --directory | --position-file) compgen -f ;;
        *)
            case $subcommand in
                "")
                    echo sink notify publish subscribe connect serve encode decode pipes resolve follow ping bench top metrics doctor help
                    type -P vornnet-relay >/dev/null && echo relay
                    ;;
                help) echo sink notify publish subscribe connect serve encode decode pipes resolve follow ping bench top metrics doctor ;;
                publish | subscribe) ((position > 1)) || _vornnet_addresses ;;
                notify | connect | serve | ping | bench)
                    if ((position == 1)); then
                        _vornnet_addresses
                    elif [[ $subcommand != @(ping|bench) && ($subcommand != notify || position -gt 3) ]]; then
                        echo int: short: long: bool: string: line: ack error
                    fi
                    ;;
                encode) echo int: short: long: bool: string: line: ack error ;;
                resolve) compgen -A hostname ;;
            esac
            ;;
    esac
}

_vornnet()
{
    local words=("${COMP_WORDS[@]}") cword=$COMP_CWORD cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    if declare -F _get_comp_words_by_ref >/dev/null; then
        _get_comp_words_by_ref -n : cur prev words cword
    fi
    # A package of its own has the rest of this command.
    if ((cword > 1)) && [[ ${words[1]} == relay ]]; then
        # shellcheck disable=SC1091 # where it is, the installation says
        declare -F _vornnet_relay >/dev/null || . "${BASH_SOURCE[0]%/*}/vornnet-relay" 2>/dev/null
        declare -F _vornnet_relay >/dev/null && _vornnet_relay 1
        return 0
    fi
    local subcommand="" position=0 i
    for ((i = 1; i < cword; ++i)); do
        case ${words[i]} in
            --type | --callbacks | --class | --content | --count | --level | --repeat | --every | --timeout | \
                --service | --expect | --types | --group | --log-level | --pid | --start | --since | \
                --position-file | --words | --directory) ((++i)) ;;
            -*) ;;
            *) if [[ -z $subcommand ]]; then subcommand=${words[i]}; else ((++position)); fi ;;
        esac
    done
    ((++position))
    if [[ $cur == -* && $prev != --log-level ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_vornnet_options "$subcommand")" -- "$cur")
    elif [[ $subcommand == decode && $prev != --types && $prev != --log-level ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "$(_vornnet_words "$prev" "$subcommand" "$position")" -- "$cur")
    fi
    # What ends in a colon is to be continued.
    [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *: ]] && compopt -o nospace 2>/dev/null
    declare -F __ltrim_colon_completions >/dev/null && __ltrim_colon_completions "$cur"
    return 0
}

complete -F _vornnet vornnet
