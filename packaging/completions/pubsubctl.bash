# SPDX-License-Identifier: GPL-3.0-only
# Completion of pubsubctl for bash: the program itself says what may follow.
# shellcheck shell=bash

_pubsubctl() {
    local word
    COMPREPLY=()
    while IFS=$'\t' read -r word _; do
        case $word in
        :file)
            compopt -o filenames 2>/dev/null
            mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$2")
            ;;
        :command) mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -c -- "$2") ;;
        *) COMPREPLY+=("$word") ;;
        esac
    done < <("$1" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}

complete -F _pubsubctl pubsubctl
