#compdef vintrel-cli
# Completion of vintrel-cli for zsh.

_vintrel_cli_source() {
    local -a disks
    case "$OSTYPE" in
        darwin*) disks=(${(f)"$(diskutil list 2>/dev/null | sed -n 's|^/dev/\(disk[0-9]*\).*|\1|p')"}) ;;
        *) disks=(${(f)"$(lsblk -dnpo NAME 2>/dev/null)"}) ;;
    esac
    compadd -a disks
    _files
}

_vintrel_cli() {
    local -a commands common
    commands=(
        'list:vis tilsluttede diske'
        'scan:hurtig scanning af partitioner og filsystemer'
        'tree:vis alle fundne filer'
        'deep:dyb scanning efter tabte volumener og signaturer'
        'recover:gendan filer til en mappe'
        'image:lav et diskbillede'
    )
    common=('--progress[vis hele tiden, hvor langt kommandoen er]' '--json[skriv resultatet som JSON]')
    if (( CURRENT == 2 )); then
        _describe -t commands 'kommando' commands
        compadd -- --help --version
        return
    fi
    local command=$words[2]
    shift words
    (( CURRENT-- ))
    case $command in
        list) _arguments $common ;;
        scan) _arguments $common '1:kilde:_vintrel_cli_source' ;;
        tree) _arguments $common '--deep[dyb scanning]' '--fragments[saml filer i stykker]' \
            '--streams[navngivne strømme]' '--text[også tekst efter indhold]' \
            '1:kilde:_vintrel_cli_source' ;;
        deep) _arguments $common '--no-carve[uden filer efter indhold]' '--fragments[saml filer i stykker]' \
            '--text[også tekst efter indhold]' \
            '1:kilde:_vintrel_cli_source' ;;
        recover) _arguments $common '--deep[dyb scanning]' '--deleted[kun det, der ikke længere findes]' \
            '--fragments[saml filer i stykker]' '--streams[ressourcegrene og navngivne strømme]' \
            '--text[også tekst efter indhold]' \
            '*--only[kun disse stier]:mønster:' '*--volume[kun dette volumen]:nummer:' \
            '*--type[kun disse typer]:type:(billeder video lyd dokumenter arkiver andet jpg pdf mp4)' \
            '*--chance[kun med disse chancer]:chance:(god delvis ringe ukendt)' \
            '--list-only[kun rapporten]' '--page[en side at se på]' \
            '1:kilde:_vintrel_cli_source' '2:mappe:_files -/' ;;
        image) _arguments '--progress[vis hele tiden, hvor langt kommandoen er]' '--page[en side med skaderne]' \
            '1:kilde:_vintrel_cli_source' '2:billedfil:_files' ;;
    esac
}

_vintrel_cli "$@"
