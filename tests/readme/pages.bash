# shellcheck shell=bash
# What the tests of pages share: sourced by tests/readme/run and by the scripts of tests/porting.

# All files of the project, which is the current folder, whether they are in the repository yet or not.
list_files() {
    { git ls-files --cached --others --exclude-standard 2>/dev/null ||
        find . \( -name .git -o -name 'build*' \) -prune -o -type f -printf '%P\n'; } |
        while IFS= read -r file; do
            [[ ! -e $file ]] || printf '%s\n' "$file"
        done
}

# A copy has this file, by which it is known that it may be replaced.
readonly copy_mark=.copied-checkout

# Marks an empty folder as a copy, and fails for one that is neither empty nor marked:
# mark_copy CHECKOUT COPY
mark_copy() {
    if [[ ! $2 -ef $1 ]] && [[ -f $2/$copy_mark || -z $(ls -A -- "$2") ]]; then
        : >"$2/$copy_mark"
        return
    fi
    printf 'FAILED: %s is neither empty nor a copy, which has %s: remove it\n' "$2" "$copy_mark" >&2
    return 1
}

# Copies a checkout as a newcomer gets it in the place of an older copy, but keeps what was built
# there: copy_checkout CHECKOUT COPY, both with absolute paths. Times are kept, so that what was
# built before needs no building. Any other folder that is not empty is left alone.
copy_checkout() {
    mkdir -p -- "$2" && mark_copy "$1" "$2" &&
        find "$2" -mindepth 1 -maxdepth 1 ! -name build ! -name "$copy_mark" -exec rm -rf {} + &&
        (cd "$1" && list_files | xargs -r -d '\n' cp --parents --preserve=mode,timestamps -t "$2")
}

# The blocks of a page that a shell reads, without empty lines, an empty line behind each:
# print_blocks PAGE
print_blocks() {
    awk '
        inside && $0 == "```" { inside = 0; print ""; next }
        inside && $0 != "" { print }
        $0 == "```sh" { inside = 1 }
    ' "$1"
}
