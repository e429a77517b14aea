# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# bash completion for vornnet-relay(8), also as `vornnet relay`

_vornnet_relay_options()
{
    case $1 in
        status | leases | 'hosts list' | 'dead list') echo --json --config --help ;;
        notify) echo --id --config --help ;;
        'hosts add') echo --send-to --consumer --megabytes --messages --hours --replicas --topics --follow --offer --reach --config --help ;;
        '') echo --config --help --version ;;
        *) echo --config --help ;;
    esac
}

_vornnet_relay_words()
{
    case $1 in
        '') echo run doctor status lease leases release notify hosts dead redirect ;;
        hosts) echo add remove list ;;
        dead) echo list show resend drop ;;
        redirect) echo on off ;;
    esac
}

# The first argument says how many words stand before the relay's own.
_vornnet_relay()
{
    local words=("${COMP_WORDS[@]:$1}") cword=$((COMP_CWORD - $1)) command="" i
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    for ((i = 1; i < cword; ++i)); do
        case ${words[i]} in
            --config | --id | --send-to | --consumer | --megabytes | --messages | --hours | --replicas | --follow | --reach) ((++i)) ;;
            -*) ;;
            *)
                if [[ -z $command ]]; then
                    command=${words[i]}
                elif [[ $command == hosts || $command == dead ]]; then
                    command+=" ${words[i]}"
                fi
                ;;
        esac
    done
    case $prev in
        --config) mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
        --consumer) mapfile -t COMPREPLY < <(compgen -W 'own fixed' -- "$cur") ;;
        --id | --send-to | --megabytes | --messages | --hours | --replicas | --follow | --reach) COMPREPLY=() ;;
        *)
            if [[ $cur == -* ]]; then
                mapfile -t COMPREPLY < <(compgen -W "$(_vornnet_relay_options "$command")" -- "$cur")
            else
                mapfile -t COMPREPLY < <(compgen -W "$(_vornnet_relay_words "$command")" -- "$cur")
            fi
            ;;
    esac
    return 0
}

_vornnet_relay_alone()
{
    _vornnet_relay 0
}

complete -F _vornnet_relay_alone vornnet-relay
