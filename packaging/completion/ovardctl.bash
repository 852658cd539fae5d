# shellcheck shell=bash
# Completion of ovardctl(1) for bash. It needs nothing but bash itself.

# The words that may follow a command, apart from options; "" stands for the tool.
_ovardctl_commands() {
    case $1 in
    '') echo 'start stop restart status system events requests' ;;
    requests) echo 'list check add remove compile show' ;;
    esac
}

_ovardctl_options() {
    local start='--cmd --version --pidfile --no-pidfile --port --priority --delay --keepalive
        --heartbeat --restart --life-limit --no-wait'
    case $1 in
    '') echo '--version --help --socket --timeout' ;;
    start) echo "$start --help" ;;
    stop) echo '--no-wait --all --all-but-security --port-apps --help' ;;
    restart) echo '--no-wait --all --self-restarting --port-apps --help' ;;
    status | system) echo '--json --watch --help' ;;
    events) echo '-n --lines -f --follow --file --json --help' ;;
    'requests list') echo '--json --help' ;;
    'requests check') echo '--root --byte-order --help' ;;
    'requests add') echo "$start --replace --help" ;;
    'requests compile') echo '-o --output --byte-order --help' ;;
    *) echo '--help' ;;
    esac
}

# Whether the option $2 of the command $1 takes a value.
_ovardctl_takes_value() {
    case $2 in
    --socket | --timeout | --cmd | --pidfile | --port | --priority | --delay | --restart | \
        --life-limit | -n | --lines | --file | --root | --byte-order | -o | --output) return 0 ;;
    --version) [[ $1 == start || $1 == 'requests add' ]] ;;
    *) return 1 ;;
    esac
}

# Reads the words before the cursor: sets command, such as "stop" or "requests add", arguments, and
# socket. Bash makes words of their own of "=" and ":"; what follows belongs to a value.
_ovardctl_read_words() {
    local i word next
    command='' arguments=() socket=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]} next=${COMP_WORDS[i + 1]}
        if [[ $word == [=:] ]]; then
            [[ ${COMP_WORDS[i - 1]} != --socket ]] || socket=(--socket "$next")
            ((++i))
        elif [[ $next != = ]] && _ovardctl_takes_value "$command" "$word"; then
            [[ $word != --socket ]] || socket=(--socket "$next")
            ((++i))
        elif [[ $word == --watch && $next == [0-9]* ]]; then
            ((++i))
        elif [[ $word == -* ]]; then
            continue
        elif [[ -n $(_ovardctl_commands "$command") ]]; then
            command=${command:+$command }$word
        else
            arguments+=("$word")
        fi
    done
}

# The names in JSON. Anybody may publish names, what compgen is given is expanded like a command line,
# and what begins with "-" would be an option: only harmless ones are let through.
_ovardctl_names() {
    "$@" 2>/dev/null | grep -o '"name": *"[[:alnum:]_.][[:alnum:]_.-]*"' | sed 's/.*: *"//; s/"$//'
}

_ovardctl_complete_words() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$current"); }

_ovardctl_complete_files() {
    mapfile -t COMPREPLY < <(compgen "$@" -- "$current")
    compopt -o filenames 2>/dev/null
}

# The value of the option $1.
_ovardctl_complete_value() {
    case $1 in
    --socket | --cmd | --pidfile | --file | -o | --output) _ovardctl_complete_files -f ;;
    --root) _ovardctl_complete_files -d ;;
    --byte-order) _ovardctl_complete_words 'little big native' ;;
    --restart) _ovardctl_complete_words 'self all' ;;
    --port)
        _ovardctl_complete_words 'none com: eth:'
        [[ ${COMPREPLY[*]} != *: ]] || compopt -o nospace 2>/dev/null
        ;;
    esac
}

# What is no option, nor its value.
_ovardctl_complete_argument() {
    case $command,${#arguments[@]} in
    start,0 | stop,0 | restart,0 | status,0)
        _ovardctl_complete_words "$(_ovardctl_names "$program" "${socket[@]}" status --json)"
        ;;
    requests\ *,0) _ovardctl_complete_files -f ;;
    'requests add,1' | 'requests remove,1')
        _ovardctl_complete_words \
            "$(_ovardctl_names "$program" requests list --json "${arguments[0]}")"
        ;;
    *) _ovardctl_complete_words "$(_ovardctl_commands "$command")" ;;
    esac
}

_ovardctl() {
    local program=$1 current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command arguments socket
    COMPREPLY=()
    _ovardctl_read_words
    if [[ $current == = ]]; then
        current=''
    elif [[ $previous == = ]]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    if [[ $current == : || $previous == : ]]; then
        return # a port number
    elif _ovardctl_takes_value "$command" "$previous"; then
        _ovardctl_complete_value "$previous"
    elif [[ $current == -* ]]; then
        _ovardctl_complete_words "$(_ovardctl_options "$command")"
    else
        _ovardctl_complete_argument
    fi
}

complete -F _ovardctl ovardctl
