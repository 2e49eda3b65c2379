# Completion of vintrel-cli for bash.

# What list would show, without waiting for the health of the disks.
_vintrel_cli_disks() {
    case "$(uname -s)" in
        Darwin) diskutil list 2>/dev/null | sed -n 's|^/dev/\(disk[0-9]*\).*|\1|p' ;;
        *) lsblk -dnpo NAME 2>/dev/null ;;
    esac
}

_vintrel_cli() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]} options
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W 'list scan tree deep recover image --help --version' -- "$current")
        return
    fi
    case "$previous" in
        --chance) mapfile -t COMPREPLY < <(compgen -W 'god delvis ringe ukendt' -- "$current"); return ;;
        --type)
            mapfile -t COMPREPLY < <(compgen -W 'billeder video lyd dokumenter arkiver andet jpg pdf mp4' -- "$current")
            return ;;
        --only | --volume) return ;;
    esac
    options='--progress --json'
    case "$command" in
        tree) options+=' --deep --fragments --streams --text' ;;
        deep) options+=' --no-carve --fragments --text' ;;
        recover) options+=' --deep --deleted --fragments --streams --text --only --type --chance --volume --list-only --page' ;;
        image) options='--progress --page' ;;
    esac
    case "$current" in
        -*) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current"); return ;;
    esac
    if [ "$command" = list ]; then return; fi
    compopt -o filenames 2>/dev/null
    if [ "$COMP_CWORD" -eq 2 ]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_vintrel_cli_disks)" -- "$current"; compgen -f -- "$current")
    elif [ "$command" = recover ]; then
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}
complete -F _vintrel_cli vintrel-cli
