#!/bin/bash
# What ovardctl says of itself, in its help texts. The tests hold completion and manual against it.

# ovardctl_help TOOL COMMAND: COMMAND is "" for the tool itself, or such as "requests add".
ovardctl_help() {
    # shellcheck disable=SC2086 # words
    "$1" $2 --help
}

# The lines below a heading of a help text on standard input, one entry each.
help_section() { sed -n "/^$1:\$/,/^\$/s/^  \([^ ].*\)/\1/p"; }

# The commands below a command.
help_commands() { ovardctl_help "$1" "$2" | help_section Subcommands | cut -d ' ' -f 1; }

# The options of a command, one a line; both names of an option that has two.
help_options() { ovardctl_help "$1" "$2" | help_section Options | cut -d ' ' -f 1 | tr , '\n'; }

# Those of them that take a value. The name of the value stands right behind the option; one that
# may be left out has its default there.
help_options_with_value() {
    ovardctl_help "$1" "$2" | help_section Options |
        sed -n 's/^\([^ ]*\) [A-Z][A-Z]*\( .*\)\{0,1\}$/\1/p' | tr , '\n'
}

# Every command, also those of two words, and "" for the tool; one a line.
all_commands() {
    local command inner
    echo
    for command in $(help_commands "$1" ''); do
        echo "$command"
        for inner in $(help_commands "$1" "$command"); do
            echo "$command $inner"
        done
    done
}
