# Completion for xj-usbip-host and xj-usbip-remote: the options and subcommands are those that
# --help names.
_xj_usbip() {
    local words
    words=$("$1" --help 2>/dev/null | grep -oE '^ +(-h,)?--[a-z-]+' | grep -oE -- '--[a-z-]+')
    [ "$COMP_CWORD" != 1 ] || words+=$'\n'$("$1" --help 2>/dev/null | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z]*\) .*/\1/p')
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$2")
}
complete -o default -F _xj_usbip xj-usbip-host xj-usbip-remote
