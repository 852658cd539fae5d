# shellcheck shell=bash
# For scripts that build one part of the test machine and keep it: sourced by kernel and busybox.
# Such a script defines `list_recipe`, which prints what decides the result beside the scripts and
# the cross compiler, without asking the network, and `build FOLDER RESULT`, which may return
# kNotTested and leaves in FOLDER/note what is to be said whenever the result is used.

readonly kCross=powerpc-linux-gnu-
readonly kNotTested=77 # the status where it cannot be built here

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# Ends the script when one of these packages is missing: require_packages PACKAGE:FILE-OR-COMMAND...
require_packages() {
    local missing=() one
    for one in "$@"; do
        [[ -r ${one#*:} ]] || command -v "${one#*:}" >/dev/null || missing+=("${one%%:*}")
    done
    ((${#missing[@]} == 0)) && return
    printf 'NOT TESTED: no %s without the packages %s\n' "${0##*/}" "${missing[*]}" >&2
    exit "$kNotTested"
}

# Prints the version of a package, or a checksum of its file where that is unknown:
# version_of PACKAGE FILE
version_of() {
    dpkg-query -W -f '${Version}\n' "$1" 2>/dev/null | grep . || sha256sum <"$2"
}

list_all() {
    cat "${BASH_SOURCE[0]}" "$0" &&
        "${kCross}gcc" --version && "${kCross}ld" --version && list_recipe
}

# Prints the path of the file NAME, which is built unless it is there already.
print_cached() {
    local name=$1 recipe folder
    recipe=$(set -o pipefail && list_all | sha256sum | cut -c 1-16) ||
        die "what decides the result is unknown"
    folder=${XDG_CACHE_HOME:-${HOME:?}/.cache}/ovard/target-$name-$recipe
    [[ -s $folder/$name ]] || build_cached "$name" "$folder"
    touch -c "$folder" 2>/dev/null # it is in use
    [[ ! -e $folder/note ]] || cat "$folder/note" >&2
    printf '%s\n' "$folder/$name"
}

# One at a time, and under its name only when it is whole: somebody else may want the same.
build_cached() {
    local name=$1 folder=$2 lock status=0
    { mkdir -p "$folder" && exec {lock}<"$folder" && flock "$lock"; } || die "cannot lock $folder"
    [[ ! -s $folder/$name ]] || return 0
    rm -rf "$folder"/build.* # of one that was killed
    work=$(mktemp -d "$folder/build.XXXXXX") || die "cannot write to $folder"
    trap 'rm -rf "$work"' EXIT
    trap 'exit 143' HUP INT TERM # when what runs has ended
    printf '%s: building it\n' "${0##*/}" >&2
    (exec {lock}<&- && build "$work" "$work/result") >"$work/log" 2>&1 || status=$?
    if ((status)); then
        tail -n 40 "$work/log" >&2
        ((status != kNotTested)) || exit "$kNotTested"
        die "the build failed"
    fi
    [[ ! -e $work/note ]] || mv -f "$work/note" "$folder/note" || die "cannot write to $folder"
    mv -f "$work/result" "$folder/$name" || die "cannot write to $folder"
    remove_unused "$name" "${folder%/*}"
}

# Removes the results of that name that nobody has used for a month: remove_unused NAME FOLDER
remove_unused() {
    find "$2" -maxdepth 1 -name "target-$1-*" -mtime +30 -exec rm -rf {} +
}

# Whether a configuration has all that was asked for: check_configuration WANTED MADE. An option
# whose conditions are not met is dropped without a word.
check_configuration() {
    local line failed=0
    while IFS= read -r line; do
        case $line in
        CONFIG_*)
            grep -qxF -- "$line" "$2" && continue
            ;;
        '# CONFIG_'*' is not set')
            line=${line#\# }
            grep -q "^${line% is not set}=" "$2" || continue
            ;;
        *) continue ;;
        esac
        printf 'not met: %s\n' "$line"
        failed=1
    done <"$1"
    return "$failed"
}
