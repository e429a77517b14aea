# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# bash completion for vornnet(1), which reads what there is from the help texts

# Addresses contain colons, at which bash parts words unless completion takes care of it.
_vornnet_addresses()
{
    local directory=/opt/vorn/hostmgr/var/lib/kestrel/rendez pipe
    echo socket: udp: pipe:
    for pipe in "$directory"/*; do
        [[ -S $pipe ]] && echo "pipe:${pipe##*/}"
    done
}

# What can stand for an argument, or for the value of an option, by what the help text calls it.
_vornnet_words()
{
    local choices
    case $1 in
        *:\{*\}*) choices=${1#*:\{} && tr , ' ' <<<"${choices%%\}*}" ;;
        *'in [-1 - 9]'*) echo -1 {0..9} ;;
        *'in [0 - 9]'*) echo {0..9} ;;
        ADDRESS) _vornnet_addresses ;;
        *VALUE...*) echo int: short: long: bool: string: line: ack error ;;
        *' TYPES'*) echo int short long bool string line ack ;;
        *'--group '*) compgen -g ;;
        NAME) compgen -A hostname ;;
    esac
}

_vornnet()
{
    local words=("${COMP_WORDS[@]}") cword=$COMP_CWORD cur=${COMP_WORDS[COMP_CWORD]}
    if declare -F _get_comp_words_by_ref >/dev/null; then
        _get_comp_words_by_ref -n : cur words cword
    fi
    local subcommand="" help wanted="" arguments=() position=0 i
    ((cword > 1)) && subcommand=${words[1]}
    # A package of its own has the rest of this command.
    if [[ $subcommand == relay ]]; then
        # shellcheck disable=SC1091 # where it is, the installation says
        declare -F _vornnet_relay >/dev/null || . "${BASH_SOURCE[0]%/*}/vornnet-relay" 2>/dev/null
        declare -F _vornnet_relay >/dev/null && _vornnet_relay 1
        return 0
    fi
    help=$("${words[0]}" ${subcommand:+"$subcommand"} --help 2>/dev/null)
    for ((i = 2; i < cword; ++i)); do
        if [[ -n $wanted ]]; then
            wanted="" # this is the value of the option before
        elif [[ ${words[i]} == -* ]]; then
            wanted=$(grep -e "^  ${words[i]} [A-Z]" <<<"$help")
        else
            ((++position))
        fi
    done
    if [[ -z $wanted && $cur == -* ]]; then
        wanted=OPTION
    elif [[ -z $wanted ]]; then
        read -ra arguments < <(sed -n 's/^Usage:.*\[OPTIONS\]//p' <<<"$help" | tr -d '[]')
        [[ ${arguments[*]} == *... ]] && ((position >= ${#arguments[@]})) && position=$((${#arguments[@]} - 1))
        wanted=${arguments[position]-}
    fi
    case $wanted in
        FILE | *' FILE '* | *' DIRECTORY '*) mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
        OPTION) mapfile -t COMPREPLY < <(compgen -W "$(sed -nE 's/^  (-h,)?(--[a-z-]+) .*/\2/p' <<<"$help")" -- "$cur") ;;
        SUBCOMMAND | COMMAND)
            help=$("${words[0]}" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p')
            [[ $wanted == SUBCOMMAND ]] && type -P vornnet-relay >/dev/null && help+=" relay"
            mapfile -t COMPREPLY < <(compgen -W "$help" -- "$cur")
            ;;
        *) mapfile -t COMPREPLY < <(compgen -W "$(_vornnet_words "$wanted")" -- "$cur") ;;
    esac
    # What ends in a colon is to be continued.
    [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *: ]] && compopt -o nospace 2>/dev/null
    declare -F __ltrim_colon_completions >/dev/null && __ltrim_colon_completions "$cur"
    return 0
}

complete -F _vornnet vornnet
