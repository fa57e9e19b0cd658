#!/usr/bin/env bash
# Writes the gzipped man page of tsapp from its own help texts with
# help2man: the tool's --help and --version, one subsection per command
# made from `tsapp CMD --help`, and the hand-written sections in tsapp.h2m.
#   make-man.sh TSAPP OUT.1.gz
set -euo pipefail
tool=$1 out=$2
here=$(cd "$(dirname "$0")" && pwd)
# The completion script holds the one reader of the command list.
source "$here/../completion/tsapp.bash"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Each command's help as roff: the usage line as the subsection title, its
# summary, then one tagged paragraph per argument and option (the value's
# kind is kept for options, the parser's TEXT and REQUIRED are not).
{
    echo "[COMMANDS]"
    # A command of commands ("repo") is followed by each of its own.
    _tsapp_read_commands "$tool" | while read -r command _aliases; do
        echo "$command"
        _tsapp_read_commands "$tool" "$command" | while read -r sub _; do echo "$command $sub"; done
    done | while read -r command; do
        _aliases=$(_tsapp_read_commands "$tool" | awk -v c="$command" '$1 == c { $1 = ""; sub(/^ /, ""); print }')
        "$tool" $command --help | awk -v command="$command" -v aliases="$_aliases" '
            function roff(text) { gsub(/\\/, "\\e", text); gsub(/-/, "\\-", text); return text }
            NR == 1 { summary = $0; next }
            /^Usage:/ {
                sub(/^Usage: */, "")
                printf ".SS \"%s\"\n%s\n", roff($0), roff(summary)
                if (aliases != "") printf "Also: \\fB%s\\fR.\n", roff(aliases)
                next
            }
            /^ +[^ ]/ && !/--help/ {
                sub(/^ +/, "")
                term = $0; text = $0
                sub(/  .*/, "", term); sub(/^[^ ]+( [^ ]+)*  +/, "", text)
                if (text == $0) text = ""
                n = split(term, words, " ")
                if (words[1] !~ /^-/) n = 1
                gsub(/,/, ", ", words[1])
                printf ".TP\n%s", words[1] ~ /^-/ ? "\\fB" roff(words[1]) "\\fR" : "\\fI" roff(words[1]) "\\fR"
                for (i = 2; i <= n; i++) if (words[i] ~ /^[A-Z]+$/ && words[i] != "REQUIRED") printf " \\fI%s\\fR", roff(words[i])
                printf "\n%s\n", roff(text)
            }'
    done
} >"$work/commands.h2m"

help2man --no-info --no-discard-stderr --name="inspect, build, sign, install and publish app packages" \
    --include="$here/tsapp.h2m" --include="$work/commands.h2m" --output="$work/tsapp.1" "$tool"
gzip -9n <"$work/tsapp.1" >"$out"
