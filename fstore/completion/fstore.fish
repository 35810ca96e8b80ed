# Completion of fstore for fish: put it into ~/.config/fish/completions, or source it.
function __fstore_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    set -l answer ($words[1] complete (count $words) -- $words "$current" 2>/dev/null)
    switch "$answer[1]"
        case :files
            __fish_complete_path "$current"
        case :folders
            __fish_complete_directories "$current"
        case '*'
            if test (count $answer) -gt 1
                printf '%s\n' $answer[2..-1]
            end
    end
end
complete -c fstore -f -a '(__fstore_complete)'
