# bash completion for stashwickctl(1). The program itself knows what can stand where.

_stashwickctl() {
  local word=${COMP_WORDS[COMP_CWORD]} candidates
  candidates=$("${COMP_WORDS[0]}" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
  COMPREPLY=()
  [[ -n $candidates ]] && mapfile -t COMPREPLY <<<"$candidates"
  local i
  for i in "${!COMPREPLY[@]}"; do
    [[ $word == [\"\']* ]] || printf -v "COMPREPLY[$i]" %q "${COMPREPLY[i]}"
  done
}

# Where nothing else is wanted, files and folders are.
complete -o default -F _stashwickctl stashwickctl
