# SPDX-License-Identifier: GPL-3.0-only
# Completion of pubsubctl for fish: the program itself says what may follow.

function __pubsubctl_candidates
    set -l words (commandline -opc)
    set -l typed (commandline -ct)
    for line in ($words[1] --complete $words[2..-1] "$typed" 2>/dev/null)
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
