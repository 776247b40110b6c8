# shellcheck shell=bash
# Bash completion of pelmorctl(1). Does not need the bash-completion package.

_pelmorctl_command() {
  local word
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $word in
      metric | structured | offline | check-config | status | doctor | version)
        echo "$word"
        return
        ;;
    esac
  done
}

_pelmorctl_words() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "${COMP_WORDS[COMP_CWORD]}"); }

_pelmorctl_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "${COMP_WORDS[COMP_CWORD]}")
}

# Completes the value of the option before the cursor, with or without an equals sign.
_pelmorctl_value() {
  local option=${COMP_WORDS[COMP_CWORD - 1]}
  if [[ $option == = && $COMP_CWORD -gt 1 ]]; then
    option=${COMP_WORDS[COMP_CWORD - 2]}
  elif [[ ${COMP_WORDS[COMP_CWORD]} == = ]]; then
    COMP_WORDS[COMP_CWORD]=
  fi
  case $option in
    --type) _pelmorctl_words "int64 double bool string" ;;
    --config | --override | --daemon) _pelmorctl_files ;;
    --label | -l) ;;
    *) return 1 ;;
  esac
}

_pelmorctl() {
  COMPREPLY=()
  local command
  command=$(_pelmorctl_command)
  if [[ -z $command ]]; then
    _pelmorctl_words "metric structured offline check-config status doctor version --help --version"
    return
  fi
  _pelmorctl_value && return
  case $command/${COMP_WORDS[COMP_CWORD]} in
    metric/-*) _pelmorctl_words "--type --label --stream --help" ;;
    structured/-* | offline/-*) _pelmorctl_words "- --help" ;;
    structured/* | offline/*) _pelmorctl_files ;;
    check-config/*) _pelmorctl_words "--config --override --strict --help" ;;
    status/*) _pelmorctl_words "--json --watch --help" ;;
    doctor/*) _pelmorctl_words "--json --strict --help" ;;
    version/*) _pelmorctl_words "--daemon --help" ;;
  esac
}

complete -F _pelmorctl pelmorctl
