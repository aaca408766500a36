# Completion for xj-usbip-host and xj-usbip-remote: the options are those that --help names.
_xj_usbip() {
    local words
    words=$("$1" --help 2>/dev/null | grep -oE '^ +(-h,)?--[a-z-]+' | grep -oE -- '--[a-z-]+')
    [[ $1 != *xj-usbip-host || $COMP_CWORD != 1 ]] || words+=$'\ndoctor'
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$2")
}
complete -o default -F _xj_usbip xj-usbip-host xj-usbip-remote
