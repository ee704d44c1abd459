#!/bin/sh
# Checks that a man page names everything a program's --help lists, so that
# the page cannot fall behind the program. An item is the line after a .TP
# or .TQ request.
#   options  every --long-option in PROGRAM --help is in PAGE (as \-\-long\-option)
#   items    every --long-option in PROGRAM --help starts an item of PAGE
#            (.B \-\-option, .BI \-\-option or .BR \-\-option)
#   commands every command under "Commands:" in PROGRAM --help starts an item
#            of PAGE (\fBcommand\fR)
#   keys     every --long-option in PROGRAM --help but --config, --help and
#            --version starts an item of PAGE without its dashes (.B key, ...)
# Fails naming each one missing.
# usage: check-names.sh options|items|commands|keys PROGRAM PAGE
set -u
mode=$1 program=$2 page=$3
help=$("$program" --help) || { echo "$program --help failed"; exit 1; }
[ -r "$page" ] || { echo "$page: cannot read"; exit 1; }
items=$(awk 'previous ~ /^\.(TP|TQ)( |$)/ { print } { previous = $0 }' "$page")

# A name as roff writes it, every '-' escaped, as a grep -E pattern.
pattern() { printf '%s' "$1" | sed 's/-/\\\\-/g'; }

case $mode in
options | items | keys)
    names=$(printf '%s\n' "$help" | grep -o -- '--[a-z][a-z0-9-]*' | sort -u)
    ;;
commands)
    names=$(printf '%s\n' "$help" | sed -n '/^Commands:/,/^$/p' |
        sed -n 's/^  \([a-z][a-z-]*\).*/\1/p' | sort -u)
    ;;
*)
    echo "unknown mode $mode"
    exit 2
    ;;
esac
[ -n "$names" ] || { echo "$program --help lists no $mode"; exit 1; }

missing=0
for name in $names; do
    case $mode in
    options)
        grep -qE -- "$(pattern "$name")" "$page"
        ;;
    items)
        printf '%s\n' "$items" | grep -qE -- "^\.(B|BI|BR) $(pattern "$name")( |$)"
        ;;
    commands)
        printf '%s\n' "$items" | grep -qE -- "^\\\\fB$(pattern "$name")\\\\f[RP]( |$)"
        ;;
    keys)
        key=${name#--}
        case $key in config | help | version) continue ;; esac
        printf '%s\n' "$items" | grep -qE -- "^\.(B|BI|BR) $(pattern "$key")( |$)"
        ;;
    esac || {
        echo "$page does not name $name ($program --help lists it)"
        missing=1
    }
done
[ "$missing" -eq 0 ] && echo "$page names the $mode of $program --help"
exit "$missing"
