# bash completion for pkgdist's programs: commands and options come from their own --help, values
# of options that name files from the file system.

# The part of a help text below a heading, up to the next one.
_pkgdist_section() {
  awk -v heading="$1:" '$0 == heading { on = 1; next } /^[A-Z]/ { on = 0 } on' <<<"$2"
}

_pkgdist() {
  local program=${COMP_WORDS[0]} current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  local help commands options word path=()
  COMPREPLY=()
  command -v "$program" >/dev/null || return
  help=$("$program" --help 2>/dev/null)
  commands=$(_pkgdist_section Subcommands "$help" | awk '/^  [a-z]/ { print $1 }')
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    grep -qxF -e "$word" <<<"$commands" || continue
    path+=("$word")  # a command may have commands of its own
    word=$("$program" "${path[@]}" --help 2>/dev/null)
    commands=$(_pkgdist_section Subcommands "$word" | awk '/^  [a-z]/ { print $1 }')
    help+=$'\n'$word
  done
  options=$(grep -oE '(^|[ ,])--[a-z][a-z-]*' <<<"$help" | tr -d ' ,' | sort -u)
  # The value of an option: of "N=DIR", what follows the sign.
  if [[ $previous == --* ]] && grep -qE -e "(^|[ ,])$previous(,-[a-z])? +[A-Z0-9\[]" <<<"$help"; then
    return  # readline completes file names
  fi
  case $current in
    -*) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current") ;;
    *) [ -z "$commands" ] || mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current") ;;
  esac
}

complete -o default -o bashdefault -F _pkgdist pkgdist-doctor pkgdist-lead pkgdist-node pkgdist-release pkgdist-stat pkgdist-trace
