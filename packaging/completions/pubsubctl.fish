# SPDX-License-Identifier: GPL-3.0-only
# Completion of pubsubctl for fish: the program itself says what may follow.

function __pubsubctl_candidates
    set -l words (commandline -opc)
    set -l typed (commandline -ct)
    set -l plain (string unescape -- $typed; or echo $typed)
    for line in ($words[1] --complete $words[2..-1] "$plain" 2>/dev/null)
        switch $line
            case :file
                __fish_complete_path "$typed"
            case :command
                __fish_complete_command
            case '*'
                echo $line
        end
    end
end

complete -c pubsubctl -f -a '(__pubsubctl_candidates)'
