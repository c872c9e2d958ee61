# bash completion for pkgdist's programs: commands and options come from their own --help, values
# of options that name files from the file system.

# The part of a help text below a heading, up to the next one.
_pkgdist_section() {
  awk -v heading="$1:" '$0 == heading { on = 1; next } /^[A-Z]/ { on = 0 } on' <<<"$2"
}

_pkgdist() {
  local program=${COMP_WORDS[0]} current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  local help commands options command="" word
  COMPREPLY=()
  command -v "$program" >/dev/null || return
  help=$("$program" --help 2>/dev/null)
  commands=$(_pkgdist_section Subcommands "$help" | awk '/^  [a-z]/ { print $1 }')
  options=$(grep -oE '(^|[ ,])--[a-z][a-z-]*' <<<"$help" | tr -d ' ,')
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if grep -qxF -e "$word" <<<"$commands"; then command=$word; break; fi
  done
  if [ -n "$command" ]; then
    word=$("$program" "$command" --help 2>/dev/null)
    commands=$(_pkgdist_section Subcommands "$word" | awk '/^  [a-z]/ { print $1 }')
    help+=$'\n'$word
    options=$(grep -oE '(^|[ ,])--[a-z][a-z-]*' <<<"$help" | tr -d ' ,' | sort -u)
  fi
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
