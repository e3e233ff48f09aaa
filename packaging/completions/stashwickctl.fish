# fish completion for stashwickctl(1). The program itself knows what can stand where.

function __stashwickctl_complete
    set -l words (commandline -opc)
    set -l token (commandline -ct)
    # A quote that is still open cannot be taken away otherwise.
    set -l word (string unescape -- "$token"; or string trim --left --chars "\"'" -- "$token")
    set -l found ($words[1] --complete $words[2..-1] "$word" 2>/dev/null)
    # Where nothing else is wanted, files and folders are.
    if set -q found[1]
        printf '%s\n' $found
    else
        set -l option (string match --regex -- '^--[^=]*=' "$word")
        string replace --regex -- '^' "$option" (__fish_complete_path (string replace -- "$option" '' "$word"))
    end
end

complete -c stashwickctl -f -a '(__stashwickctl_complete)'
