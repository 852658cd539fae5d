# shellcheck shell=bash
# Completion of ovard(8) for bash. It needs nothing but bash itself.

_ovard() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    case $previous in
    -f | -x)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        compopt -o filenames 2>/dev/null
        ;;
    -v) mapfile -t COMPREPLY < <(compgen -W '0 1 2 3 4 5 6 7 8' -- "$current") ;;
    -[wIisph]) ;; # a number of seconds
    *) mapfile -t COMPREPLY < <(compgen -W '-a -b -d -f -h -I -i -p -s -t -v -w -x -?' -- "$current") ;;
    esac
}

complete -F _ovard ovard
