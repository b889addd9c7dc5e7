# SPDX-License-Identifier: GPL-3.0-only
# Completion of pubsubctl for bash: the program itself says what may follow.
# shellcheck shell=bash

# Names come from elsewhere and may have blanks, "$(" and whatever else a shell obeys: they are quoted.
_pubsubctl() {
    local word at quoted prefix=""
    local -a words=()
    COMPREPLY=()
    # Readline ends words at colons and equals signs too, which names have.
    for ((at = 1; at <= COMP_CWORD; ++at)); do
        word=${COMP_WORDS[at]}
        if ((at > 1)) && [[ $word == [:=]* || ${COMP_WORDS[at - 1]} == *[:=] ]]; then
            words[-1]+=$word
        else
            words+=("$word")
        fi
    done
    [[ ${words[-1]} == [\"\']* ]] && return # nothing that is safe in every kind of quotes
    words=("${words[@]//\\/}")
    word=${words[-1]}
    [[ $word == *[:=]* ]] && printf -v prefix %q "${word%"${word##*[:=]}"}"
    while IFS=$'\t' read -r word _; do
        case $word in
        :file)
            compopt -o filenames 2>/dev/null
            mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$2")
            ;;
        :command) mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -c -- "$2") ;;
        *)
            printf -v quoted %q "$word"
            COMPREPLY+=("${quoted#"$prefix"}")
            ;;
        esac
    done < <("$1" --complete "${words[@]}" 2>/dev/null)
}

complete -F _pubsubctl pubsubctl
