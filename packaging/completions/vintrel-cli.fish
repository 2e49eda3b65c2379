# Completion of vintrel-cli for fish.

function __vintrel_cli_disks
    switch (uname -s)
        case Darwin
            diskutil list 2>/dev/null | string replace -rf '^/dev/(disk[0-9]+).*' '$1'
        case '*'
            lsblk -dnpo NAME 2>/dev/null
    end
end

function __vintrel_cli_in
    contains -- (commandline -opc)[2] $argv
end

function __vintrel_cli_words
    test (count (commandline -opc)) -eq $argv[1]
end

complete -c vintrel-cli -f -n '__vintrel_cli_words 1' -a list -d 'vis tilsluttede diske'
complete -c vintrel-cli -f -n '__vintrel_cli_words 1' -a scan -d 'hurtig scanning'
complete -c vintrel-cli -f -n '__vintrel_cli_words 1' -a tree -d 'vis alle fundne filer'
complete -c vintrel-cli -f -n '__vintrel_cli_words 1' -a deep -d 'dyb scanning'
complete -c vintrel-cli -f -n '__vintrel_cli_words 1' -a recover -d 'gendan filer til en mappe'
complete -c vintrel-cli -f -n '__vintrel_cli_words 1' -a image -d 'lav et diskbillede'
complete -c vintrel-cli -n '__vintrel_cli_words 1' -l help -d 'vis hjælp'
complete -c vintrel-cli -n '__vintrel_cli_words 1' -l version -d 'vis versionen'
complete -c vintrel-cli -n '__vintrel_cli_words 2; and __vintrel_cli_in scan tree deep recover image' -a '(__vintrel_cli_disks)' -d disk
complete -c vintrel-cli -n '__vintrel_cli_in list scan tree deep recover image' -l progress -d 'vis hele tiden, hvor langt kommandoen er'
complete -c vintrel-cli -n '__vintrel_cli_in list scan tree deep recover' -l json -d 'skriv resultatet som JSON'
complete -c vintrel-cli -n '__vintrel_cli_in tree recover' -l deep -d 'dyb scanning'
complete -c vintrel-cli -n '__vintrel_cli_in tree deep recover' -l fragments -d 'saml filer i stykker'
complete -c vintrel-cli -n '__vintrel_cli_in tree deep recover' -l text -d 'også tekst efter indhold'
complete -c vintrel-cli -n '__vintrel_cli_in deep' -l no-carve -d 'uden filer efter indhold'
complete -c vintrel-cli -n '__vintrel_cli_in recover' -l deleted -d 'kun det, der ikke længere findes'
complete -c vintrel-cli -n '__vintrel_cli_in tree recover' -l streams -d 'ressourcegrene og navngivne strømme'
complete -c vintrel-cli -x -n '__vintrel_cli_in recover' -l only -d 'kun disse stier'
complete -c vintrel-cli -x -n '__vintrel_cli_in recover' -l type -a 'billeder video lyd dokumenter arkiver andet jpg pdf mp4' -d 'kun disse typer'
complete -c vintrel-cli -x -n '__vintrel_cli_in recover' -l chance -a 'god delvis ringe ukendt' -d 'kun med disse chancer'
complete -c vintrel-cli -x -n '__vintrel_cli_in recover' -l volume -d 'kun dette volumen'
complete -c vintrel-cli -n '__vintrel_cli_in recover' -l list-only -d 'kun rapporten'
complete -c vintrel-cli -n '__vintrel_cli_in recover image' -l page -d 'en side at se på'
