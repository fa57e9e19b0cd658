# bash completion for tsapp                                -*- shell-script -*-
#
# Commands, options and what each argument is are read from `tsapp --help`
# and `tsapp CMD --help` the first time a shell needs them, so a new command
# or option completes without a change here. The list below is used only
# when the help text cannot be read (tsapp missing or not runnable).
_tsapp_fallback_commands="info check list ls icon screenshot part extract recover pack rotate verify install installed list-installed show files owner history hold unhold remove rollback audit repo search outdated upgrade help"

# The command names: the first word of each line of the section whose
# heading ends in "commands:" ("name, alias" counts as two names); with a
# command as $2, the names of its own subcommands ("repo index").
_tsapp_read_commands() {
    "$1" ${2:+$2} --help 2>/dev/null | awk '
        /^[^ ].*[Cc]ommands?:$/ { inside = 1; next }
        /^[^ ]/ { inside = 0 }
        inside && /^  +[a-z]/ {
            sub(/^ +/, ""); sub(/  .*/, ""); gsub(/,/, " "); print
        }'
}

# Four lines about one command (the tool itself when $2 is empty): its
# option names, the options that take a value, its argument names from the
# usage line ("PKG..." repeats) and the options whose value is a number.
_tsapp_read_command() {
    # $2 may be "command subcommand": two words on purpose.
    "$1" ${2:+$2} --help 2>/dev/null | awk '
        /^Usage:/ {
            for (i = 1; i <= NF; i++) {
                w = $i; gsub(/[][]/, "", w)
                if (w ~ /^[A-Z][A-Z_]*(\.\.\.)?$/ && w != "OPTIONS") args = args " " w
            }
        }
        /^ +-/ {
            sub(/^ +/, ""); sub(/  .*/, "")
            n = split($1, names, ",")
            for (i = 1; i <= n; i++) opts = opts " " names[i]
            # The kind of value: "FILE", "UINT", "SIZE", "UINT:SIZE", "SECONDS".
            if ($2 ~ /^[A-Z][A-Z:_]*$/ && $2 !~ /INT|NUM|FLOAT|SIZE|SECONDS/)
                for (i = 1; i <= n; i++) valued = valued " " names[i]
            else if ($2 ~ /^[A-Z][A-Z:_]*$/)
                for (i = 1; i <= n; i++) numeric = numeric " " names[i]
        }
        END { print opts; print valued numeric; print args; print numeric }'
}

# Options whose value is a word of the user's own (an identifier, a URL, a
# title, a duration), where file names would only be in the way.
_tsapp_word_options="--id --url --title --valid-for"

declare -gA _tsapp_cache
_tsapp_reply=""

# Sets _tsapp_reply to what is known about $2: a command, "" for the tool's
# own options, "=" for the command names. Runs in the completing shell, not
# in a subshell, so that the cache lasts.
_tsapp_lookup() {
    local key="$1 $2"
    if [[ -z ${_tsapp_cache[$key]+set} ]]; then
        if [[ $2 == = ]]; then
            _tsapp_cache[$key]=$(_tsapp_read_commands "$1")
            [[ -n ${_tsapp_cache[$key]} ]] || _tsapp_cache[$key]=$_tsapp_fallback_commands
        else
            _tsapp_cache[$key]=$(_tsapp_read_command "$1" "$2")
        fi
    fi
    _tsapp_reply=${_tsapp_cache[$key]}
}

# The part names of the package $2, one per line, as `list` shows them.
_tsapp_part_names() {
    "$1" list --json "$2" 2>/dev/null | sed -n 's/^      "name": "\(.*\)",$/\1/p'
}

# Fills COMPREPLY for an argument named $1 (from the usage line); $4 is
# the package named before it, if any.
_tsapp_complete_argument() {
    local name=$1 cur=$2 tool=$3 package=$4
    case $name in
        PART*)
            local names=$'manifest\nicon\nscreenshot'
            [[ -n $package ]] && names+=$'\n'$(_tsapp_part_names "$tool" "$package")
            local IFS=$'\n'
            mapfile -t COMPREPLY < <(compgen -W "$names" -- "$cur")
            ;;
        PKG* | PACKAGE*)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$cur"; compgen -f -X '!*.tsappinstall' -- "$cur")
            ;;
        DIR* | SRC* | DEST* | FOLDER*)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$cur")
            ;;
        CMD* | COMMAND*)
            _tsapp_lookup "$tool" =
            mapfile -t COMPREPLY < <(compgen -W "$_tsapp_reply" -- "$cur")
            ;;
        OUT* | FILE* | PATH*)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            ;;
        APP*)
            # The GUIDs of the apps installed in the root given on the line
            # (or the default root); remove (--purge), audit and history
            # also take apps removed since, whose kept files or history
            # stay on record.
            local root=() j listing=installed
            for ((j = 1; j < COMP_CWORD; j++)); do
                [[ ${COMP_WORDS[j]} == --root ]] && root=(--root "${COMP_WORDS[j + 1]}")
            done
            [[ $command == @(remove|audit|history) ]] && listing=history
            mapfile -t COMPREPLY < <(compgen -W "$("$tool" "$listing" --json "${root[@]}" 2>/dev/null |
                grep -o '"guid": *"[0-9a-fA-F-]*"' | sed 's/.*"\([0-9a-fA-F-]*\)"$/\1/' | sort -u)" -- "$cur")
            ;;
    esac
}

_tsapp() {
    local tool=${COMP_WORDS[0]} cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local i command="" at=0
    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} != -* ]]; then
            command=${COMP_WORDS[i]} at=$i
            break
        fi
    done
    COMPREPLY=()
    if [[ -z $command && $cur != -* ]]; then
        _tsapp_lookup "$tool" =
        mapfile -t COMPREPLY < <(compgen -W "$_tsapp_reply" -- "$cur")
        return
    fi

    local opts valued args numeric
    _tsapp_lookup "$tool" "$command"
    { read -r opts; read -r valued; read -r args; read -r numeric; } <<<"$_tsapp_reply"
    # A command of commands ("repo"): the next word names the one meant.
    if [[ " $args " == *" SUBCOMMAND "* ]]; then
        for ((i = at + 1; i < COMP_CWORD; i++)); do
            [[ ${COMP_WORDS[i]} == -* ]] && continue
            command="$command ${COMP_WORDS[i]}" at=$i
            break
        done
        if ((at == i)); then
            _tsapp_lookup "$tool" "$command"
            { read -r opts; read -r valued; read -r args; read -r numeric; } <<<"$_tsapp_reply"
        elif [[ $cur != -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "$(_tsapp_read_commands "$tool" "$command")" -- "$cur")
            return
        fi
    fi
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$opts" -- "$cur")
        return
    fi
    if [[ " $valued " == *" $prev "* ]]; then
        [[ " $numeric " == *" $prev "* ]] && return
        [[ " $_tsapp_word_options " == *" $prev "* ]] && return
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
    fi

    # Which argument is this? Count the words before it that are not
    # options or option values; the first is the package, for PART.
    local position=0 first=""
    for ((i = at + 1; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} == -* ]]; then
            [[ " $valued " == *" ${COMP_WORDS[i]} "* ]] && ((i++))
        else
            ((position++ == 0)) && first=${COMP_WORDS[i]}
        fi
    done
    local -a names
    read -ra names <<<"$args"
    local name=${names[position]}
    if [[ -z $name && ${#names[@]} -gt 0 && ${names[-1]} == *... ]]; then
        name=${names[-1]}
    fi
    if [[ -n $name ]]; then
        _tsapp_complete_argument "$name" "$cur" "$tool" "${first/#\~/$HOME}"
    fi
}

complete -F _tsapp tsapp
