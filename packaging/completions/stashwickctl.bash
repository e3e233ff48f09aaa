# bash completion for stashwickctl(1). The program itself knows what can stand where.

_stashwickctl() {
  local -a words=()
  local word joined='' quoted='' broken='' i
  # Words were broken at colons and equals signs as well.
  for word in "${COMP_WORDS[@]:0:COMP_CWORD+1}"; do
    if [[ ${#words[@]} -gt 1 && ($joined || $word == [:=]*) ]]; then words[-1]+=$word; else words+=("$word"); fi
    [[ $word == *[:=] ]] && joined=yes || joined=''
  done
  [[ ${words[-1]} == [\"\']* ]] && quoted=yes
  for i in "${!words[@]}"; do
    word=${words[i]}
    if [[ $word == [\"\']* ]]; then words[i]=${word:1} words[i]=${words[i]%"${word:0:1}"}; else words[i]=${word//\\/}; fi
  done
  [[ ! $quoted && ${words[-1]} == *:* && $COMP_WORDBREAKS == *:* ]] && broken=${words[-1]%:*}:
  COMPREPLY=()
  while read -r word; do
    word=${word#"$broken"}
    [[ $quoted ]] || printf -v word %q "$word"
    COMPREPLY+=("$word")
  done < <("${words[0]}" --complete "${words[@]:1}" 2>/dev/null)
}

# Where nothing else is wanted, files and folders are.
complete -o default -F _stashwickctl stashwickctl
