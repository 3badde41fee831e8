# bash completion for zul. Names of cartridges and drives are asked from zul itself, for the home that is named.

_zul_home() {
  local at
  for ((at = 1; at < COMP_CWORD; at++)); do
    [[ ${COMP_WORDS[at]} == --home ]] && printf '%s\n' --home "${COMP_WORDS[at + 1]}"
  done
}

# _zul_names drives|cartridges
_zul_names() {
  local home
  mapfile -t home < <(_zul_home)
  zul "${home[@]}" vtape list --json 2>/dev/null |
    sed -n "s/.*\"$1\":\\[\\([^]]*\\)\\].*/\\1/p" | grep -o '"name":"[^"]*"' | cut -d'"' -f4
}

_zul() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local globals='--home --host --user --password-file --help'
  local command='' part='' at
  COMPREPLY=()

  # The subcommand, and its part, are the first words that are neither options nor their values.
  for ((at = 1; at < COMP_CWORD; at++)); do
    case ${COMP_WORDS[at]} in
      --home | --host | --user | --password-file | --size | --secret | --module | --log | --upload | \
        --since | --wait | --timeout | --drive | --role | --new-password-file | --tape | --volume | --job | --as-of | \
        --from | --to | --into | --conflict | --only | --group | --name | --owner | --owner-group | --dir-mode | \
        --file-mode) ((at++)) ;;
      -*) ;;
      *) if [[ -z $command ]]; then command=${COMP_WORDS[at]}; elif [[ -z $part ]]; then part=${COMP_WORDS[at]}; fi ;;
    esac
  done

  case $before in
    --home | --password-file | --secret | --module | --log | --upload | --new-password-file)
      mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
    --role) mapfile -t COMPREPLY < <(compgen -W 'operator viewer' -- "$word"); return ;;
    --conflict)
      mapfile -t COMPREPLY < <(compgen -W 'keep-both if-different always if-newer never' -- "$word"); return ;;
    --drive) [[ $command == vtape ]] || return; mapfile -t COMPREPLY < <(compgen -W "$(_zul_names drives)" -- "$word"); return ;;
    --into) mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
    --host | --user | --size | --since | --wait | --timeout | --tape | --volume | --job | --as-of | --from | --to | --only | --group | --name | --owner | \
      --owner-group | --dir-mode | --file-mode) return ;;
  esac

  local words=''
  case $command in
    '') words='init up down request console get put follow restore verify replicate repjob transform status jobs ps vtape users key fanout multicast'
        [[ $word == -* ]] && words="--version $globals" ;;
    init) words='--classic --force --size --no-drive --secret --module' ;;
    up) words='--log' ;;
    request) words='--follow --upload' ;;
    follow) words='--replication --json --plain --since --wait' ;;
    fanout) words='--timeout --json' ;;
    restore) words='--drive --tape --volume --job --as-of --from --to --into --conflict --all --yes --json' ;;
    verify) words='--drive --tape --volume --job --as-of --json' ;;
    replicate) words='--follow --retry-failed --only --dry-run --json' ;;
    repjob)
      case $part in
        '') words='add change list remove' ;;
        add | change)
          [[ $word == -* ]] || { mapfile -t COMPREPLY < <(compgen -f -- "$word"); return; }
          words='--group --to --name --conflict --owner --owner-group --dir-mode --file-mode --setuid --no-setuid --encrypt --no-encrypt' ;;
        list) words='--json' ;;
      esac ;;
    transform)
      case $part in
        '') words='add change list remove' ;;
        list) words='--json' ;;
      esac ;;
    status | jobs | ps) words='--json' ;;
    vtape)
      case $part in
        '') words='make drive load unload protect list' ;;
        make) words='--size --drive' ;;
        load) words="--drive"; [[ $word == -* ]] || words=$(_zul_names cartridges) ;;
        unload) words='--drive' ;;
        protect) words='--off'; [[ $word == -* ]] || words=$(_zul_names cartridges) ;;
        list) words='--json' ;;
      esac ;;
    users)
      case $part in
        '') words='add del list' ;;
        add) words='--role --new-password-file' ;;
      esac ;;
    multicast)
      case $part in
        '') words='job run result doctor' ;;
        run) words='--retry-failed --json' ;;
        result | doctor) words='--json' ;;
        job) words='put get list remove --json'; [[ $before == job ]] || { mapfile -t COMPREPLY < <(compgen -W --json -f -- "$word"); return; } ;;
      esac ;;
    key)
      case $part in
        '') words='new show-fingerprint check' ;;
        new) words='--force' ;;
      esac ;;
    put) [[ $word == -* ]] || { mapfile -t COMPREPLY < <(compgen -f -- "$word"); return; } ;;
  esac
  [[ -n $command && $word == -* ]] && words="$words $globals"
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}

complete -F _zul zul
