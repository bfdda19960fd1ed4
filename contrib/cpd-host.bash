# Completion of cpd-host's command line for bash. Source it, or install it as
# share/bash-completion/completions/cpd-host.

# Sets words, cword and cur as the package bash-completion does. Readline also breaks words at = :
# and @, in values and hosts: what follows without a blank belongs to the word before.
_cpd_host_words() {
  local i line=$COMP_LINE
  for ((i = 0; i <= COMP_CWORD; ++i)); do
    if [[ $i -eq 0 || $line == [[:blank:]]* ]]; then
      words+=("${COMP_WORDS[i]}")
    else
      words[-1]+=${COMP_WORDS[i]}
    fi
    line=${line#"${line%%[![:blank:]]*}"}
    line=${line#"${COMP_WORDS[i]}"}
  done
  cword=$((${#words[@]} - 1))
  cur=${words[cword]}
}

# The options of a command, as its --help lists them.
_cpd_host_options() {
  local log='--log --log-level'
  local record='--record --record-bytes'
  local disk="--module --policy --bandwidth --trace --trace-reads --unconfined $record $log"
  local naming='--name --read-only'
  local mount='--label --allow-other --sync --no-batch --no-prefetch --no-dir-cache --no-watch'
  mount+=' --cache-memory'
  local stream='--window --no-sandbox'
  local dial='--via --rsh --remote-program -p -F -i --reconnect'
  case $1 in
    mount) echo "$disk --timeout --device $naming $stream $dial $mount" ;;
    redirect) echo "$disk $naming $stream $dial --make-directory --usb --match" ;;
    serve) echo "$disk $naming $stream" ;;
    attach) echo "--make-directory $record $log $mount $stream --reconnect" ;;
    disks) echo '--json' ;;
    ls | cat | df | xattr) echo "$disk --timeout" ;;
    replay) echo "$disk --timeout --fast" ;;
  esac
}

# Hosts that ssh knows by name: from its configuration and from those known hosts that are not
# hashed. Patterns and addresses with colons are left out, and so is anything that compgen would
# expand.
_cpd_host_hosts() {
  if declare -F _known_hosts_real >/dev/null; then
    _known_hosts_real -a -- "$1"
    return
  fi
  local known
  known=$({
    sed -n 's/^[[:blank:]]*host[[:blank:]=]\{1,\}//Ip' ~/.ssh/config
    sed -e '/^[|#]/d' -e 's/^@[^ ]* //' -e 's/ .*//' -e 's/\[\([^],]*\)\]:[0-9]*/\1/g' \
      ~/.ssh/known_hosts
  } 2>/dev/null | tr -s ', \t' '\n' | grep -x '[[:alnum:]._-]\{1,\}' | sort -u)
  mapfile -t COMPREPLY < <(compgen -W "$known" -- "$1")
}

# Whether the next word is the value of an option.
_cpd_host_has_value() {
  case $1 in
    --module | --policy | --bandwidth | --timeout | --trace | --log | --log-level | --device) ;;
    --record | --record-bytes | --cache-memory) ;;
    --name | --label | --window | --reconnect | --via | --rsh | --remote-program) ;;
    -p | -F | -i | --match) ;;
    *) return 1 ;;
  esac
}

# Completes the value of an option, as far as it can be known here.
_cpd_host_value() {
  case $1 in
    --module | --trace | --record | --log | -F | -i) compopt -o default ;; # files
    --log-level) mapfile -t COMPREPLY < <(compgen -W 'debug error off' -- "$2") ;;
    --rsh) mapfile -t COMPREPLY < <(compgen -c -- "$2") ;;
    --device)
      local partitions
      partitions=$(compgen -G '/sys/class/block/*/partition' | cut -d/ -f5)
      mapfile -t COMPREPLY < <(compgen -W "$partitions" -- "$2")
      ;;
  esac
}

# Completes a directory of this machine.
_cpd_host_directory() { compopt -o plusdirs; }

# Completes a host, perhaps after a user. Nobody knows the directories over there.
_cpd_host_host() {
  local user=''
  [[ $cur != *@* ]] || user=${cur%%@*}@
  _cpd_host_hosts "${cur#"$user"}"
  COMPREPLY=("${COMPREPLY[@]/#/"$user"}")
  COMPREPLY=("${COMPREPLY[@]/%/:}")
  [[ ${#COMPREPLY[@]} -eq 0 ]] || compopt -o nospace
}

# Completes an argument of a command.
# $1: the command; $2: how many arguments precede; $3: the options that precede
_cpd_host_argument() {
  case "$1 $2 $3 " in
    disks*) ;;
    "redirect 1 "*" --usb "* | "redirect 1 "*" --via"*) ;;
    "redirect 0 "*" --usb "* | "redirect 1 "*) _cpd_host_host ;;
    "mount 0 "*" --via"* | "mount 0 "*" --device"*) _cpd_host_directory ;;
    "mount 0 "*)
      _cpd_host_host
      # After a colon that follows a host, the path is one of that machine.
      [[ $cur == *:* && ${cur%%:*} != */* ]] || _cpd_host_directory
      ;;
    "replay 0 "*) compopt -o default ;; # a file
    *" 0 "* | "mount 1 "* | "replay 1 "*) _cpd_host_directory ;;
  esac
}

_cpd_host() {
  local cur words=() cword
  # shellcheck disable=SC2034 # _init_completion uses them
  local prev split=''
  COMPREPLY=()
  if declare -F _init_completion >/dev/null; then
    _init_completion -n =:@ || return
  else
    _cpd_host_words
  fi

  local i command='' options='' option='' arguments=0
  for ((i = 1; i < cword; ++i)); do
    if [[ $option ]]; then
      option= # this word is its value
    elif [[ ${words[i]} == -* ]]; then
      options+=" ${words[i]}"
      ! _cpd_host_has_value "${words[i]}" || option=${words[i]}
    elif [[ $command ]]; then
      ((++arguments))
    else
      command=${words[i]}
    fi
  done

  if [[ $option ]]; then
    _cpd_host_value "$option" "$cur"
  elif [[ $cur == --*=* ]]; then
    _cpd_host_value "${cur%%=*}" "${cur#*=}"
    COMPREPLY=("${COMPREPLY[@]/#/"${cur%%=*}="}")
  elif [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "-h --help $(_cpd_host_options "$command")" -- "$cur")
  elif [[ $command ]]; then
    _cpd_host_argument "$command" "$arguments" "$options"
  else
    mapfile -t COMPREPLY < <(
      compgen -W 'mount redirect serve attach disks ls cat df xattr replay' -- "$cur")
  fi
  # Readline replaces only what follows the last character at which it breaks words.
  local breaks=${COMP_WORDBREAKS//[^=:@]/}
  [[ ! $breaks ]] || COMPREPLY=("${COMPREPLY[@]#"${cur%"${cur##*["$breaks"]}"}"}")
}

complete -F _cpd_host cpd-host
