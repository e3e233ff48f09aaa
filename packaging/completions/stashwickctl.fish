# fish completion for stashwickctl(1). The program itself knows what can stand where.

function __stashwickctl_complete
    set -l words (commandline -opc) (commandline -ct)
    $words[1] --complete $words[2..-1] 2>/dev/null
end

complete -c stashwickctl -a '(__stashwickctl_complete)'
