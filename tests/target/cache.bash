# shellcheck shell=bash
# For scripts that build one part of the test machine and keep it: sourced by kernel and busybox. Such
# a script defines `list_recipe`, which prints all that decides the result, and `build FOLDER RESULT`,
# which may return kNotTested.

# shellcheck disable=SC2034  # used by those scripts
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

# Prints the path of the file NAME, which is built unless it is there already.
print_cached() {
    local name=$1 recipe folder
    recipe=$(list_recipe | sha256sum | cut -c 1-16)
    folder=${XDG_CACHE_HOME:-${HOME:?}/.cache}/ovard/target-$name-$recipe
    [[ -s $folder/$name ]] || build_cached "$name" "$folder"
    printf '%s\n' "$folder/$name"
}

# Under its name only when it is whole: the same may be built twice at a time.
build_cached() {
    local name=$1 folder=$2 status=0
    mkdir -p "$folder" || die "cannot make $folder"
    work=$(mktemp -d "$folder/build.XXXXXX") || die "cannot write to $folder"
    trap 'rm -rf "$work"' EXIT
    printf '%s: building it\n' "${0##*/}" >&2
    build "$work" "$work/result" >"$work/log" 2>&1 || status=$?
    if ((status)); then
        tail -n 40 "$work/log" >&2
        ((status != kNotTested)) || exit "$kNotTested"
        die "the build failed"
    fi
    mv -f "$work/result" "$folder/$name" || die "cannot write to $folder"
}

# Whether a configuration has all that was asked for: check_configuration WANTED MADE. An option whose
# conditions are not met is dropped without a word.
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
