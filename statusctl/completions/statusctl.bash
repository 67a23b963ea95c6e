# bash completion for statusctl. Commands and options come from its own --help, keys from the running broker.

_statusctl_commands() {
    statusctl "$@" --help 2>/dev/null | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\{1,\}\) .*/\1/p'
}

_statusctl_options() {
    statusctl "$@" --help 2>/dev/null | sed -n '/^Options:/,/^$/p' | grep -oE -- '(^  | *,)--?[a-z-]+' | tr -d ' ,'
}

_statusctl_keys() {
    # A backslash begins an escape, so the shown text is not the key itself.
    statusctl --timeout 500ms dump --keys 2>/dev/null | grep -vF '\'
}

# Offers each line that begins with the typed text, quoted. "compgen -W" would run a key that is a command.
_statusctl_offer() {
    local word
    while IFS= read -r word; do
        [[ $word ]] || continue
        printf -v word %q "$word"
        [[ $word == "$1"* ]] && COMPREPLY+=("$word")
    done
}

_statusctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} words="" verb="" files="" index
    COMPREPLY=()
    for ((index = 1; index < COMP_CWORD; ++index)); do
        case ${COMP_WORDS[index]} in
            -t | --timeout) ((++index)) ;;
            -*) ;;
            *)
                verb=${COMP_WORDS[index]}
                break
                ;;
        esac
    done
    case $previous in
        -t | --timeout | --after | --stale | -n | --speed | --match | --default | --event | --values | --format) return ;;
        --output | --broker) files=yes ;;
        --only)
            _statusctl_offer "$current" <<<$'status\nevent'
            return
            ;;
    esac
    if [[ $files ]]; then
        :
    elif [[ $current == -* ]]; then
        words=$(_statusctl_options && [[ $verb ]] && _statusctl_options "$verb")
    elif [[ -z $verb ]]; then
        words=$(_statusctl_commands)
    else
        case $verb in
            timer | counter) ((index == COMP_CWORD - 1)) && words=$(_statusctl_commands "$verb") ;;
            help) words=$(_statusctl_commands "${COMP_WORDS[@]:index + 1:COMP_CWORD - index - 1}") ;;
            completion) words=$'bash\nzsh\nfish' ;;
            load | replay | sandbox) files=yes ;;
            record) ((index == COMP_CWORD - 1)) && files=yes || words=$(_statusctl_keys) ;;
            get | set | reset | forget | dump | show | watch | wait | top) words=$(_statusctl_keys) ;;
        esac
    fi
    if [[ $files ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    _statusctl_offer "$current" <<<"$words"
}

complete -F _statusctl statusctl
