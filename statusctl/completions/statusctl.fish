# fish completion for statusctl. Commands and options come from its own --help, keys from the running broker.

function __statusctl_commands
    statusctl $argv --help 2>/dev/null | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\{1,\}\)  *\(.*\)/\1\t\2/p'
end

function __statusctl_options
    statusctl $argv --help 2>/dev/null | sed -n '/^Options:/,/^$/p' | grep -oE -- '(^  | *,)--?[a-z-]+' | tr -d ' ,'
end

function __statusctl_keys
    # A backslash begins an escape, so the shown text is not the key itself.
    statusctl --timeout 500ms dump --keys 2>/dev/null | grep -vF '\\'
end

# The command typed so far, and the number of words behind it.
function __statusctl_verb
    set -l words (commandline -opc)
    set -e words[1]
    while set -q words[1]
        switch $words[1]
            case -t --timeout
                set -e words[1]
            case '-*'
            case '*'
                echo $words[1]
                return 0
        end
        set -e words[1]
    end
    return 1
end

# The words behind the command.
function __statusctl_behind
    set -l words (commandline -opc)
    set -l at (contains -i -- (__statusctl_verb) $words)
    set -q words[(math $at + 1)]; and string join \n -- $words[(math $at + 1)..-1]
end

function __statusctl_is
    contains -- (__statusctl_verb) $argv
end

complete -c statusctl -f
complete -c statusctl -n 'not __statusctl_verb >/dev/null' -a '(__statusctl_commands)'
complete -c statusctl -n 'string match -q -- "-*" (commandline -ct)' -a '(__statusctl_options; __statusctl_options (__statusctl_verb))'
complete -c statusctl -n '__statusctl_is timer counter' -a '(__statusctl_commands (__statusctl_verb))'
complete -c statusctl -n '__statusctl_is get set reset forget dump show watch wait top record' -a '(__statusctl_keys)'
complete -c statusctl -n '__statusctl_is help' -a '(__statusctl_commands (__statusctl_behind))'
complete -c statusctl -n '__statusctl_is completion' -a 'bash zsh fish'
complete -c statusctl -n '__statusctl_is load replay record sandbox' -F
complete -c statusctl -n '__statusctl_is stats' -l output -r -F
complete -c statusctl -n '__statusctl_is watch record' -l only -x -a 'status event'
