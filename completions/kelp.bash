# Completion of kelp in bash: commands, options, tables, and paths of a running agent.

# Gives `$1` the words among `$2` that fit the word at the cursor, without what bash takes as an
# earlier word: a path has colons and equals signs in it.
_kelp_offer()
{
  local -n _kelp_into=$1
  local candidate
  while IFS= read -r candidate; do
    if [[ -n $candidate && $candidate == "$current"* ]]; then
      _kelp_into+=("${candidate#"$broken"}")
    fi
  done <<< "$2"
}

_kelp()
{
  local line=${COMP_LINE:0:COMP_POINT}
  local current=${line##*[[:space:]]}
  local breaks=${COMP_WORDBREAKS//[^:=]/}
  local broken=
  [[ -z $breaks ]] || broken=${current%"${current##*["$breaks"]}"}
  local commands="call changes check entries entry get log ls pending resources set stats tables top trace users waiting watch"
  local tables="EsemFodo EsemFodoVd Isem1Tag Isem2Tag IsemInnerEth IsemMpls IsemUntagged LemVpwsAc"
  local common="--help --inspect --json --name --root"

  # The command, how many words stand behind it, and the options that lead to the agent.
  local words word command= count=0 previous= where=()
  read -ra words <<< "${line%"$current"}"
  for word in "${words[@]:1}"; do
    case $previous in
      --inspect | --name | --root) where+=("$previous" "$word") ;;
      --interval | --key | --limit | --since | --table | --unit | --where) ;;
      *)
        if [[ $word == -* ]]; then
          :
        elif [[ -z $command ]]; then
          command=$word
        else
          count=$((count + 1))
        fi
        ;;
    esac
    previous=$word
  done

  COMPREPLY=()
  case $previous in
    --inspect | --root)
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    --table)
      _kelp_offer COMPREPLY "${tables// /$'\n'}"
      return
      ;;
    --interval | --key | --limit | --name | --since | --unit | --where) return ;;
  esac
  if [[ $current == -* ]]; then
    local options=
    case $command in
      entries) options="--unit --where" ;;
      entry) options="--unit" ;;
      log) options="--follow" ;;
      changes) options="--since" ;;
      get | users) options="--limit" ;;
      ls) options="--complete --limit" ;;
      trace) options="--read --since" ;;
      waiting) options="--key --limit --table --unit" ;;
      stats) options="--prometheus" ;;
      top) options="--interval --once" ;;
    esac
    options="$common $options"
    _kelp_offer COMPREPLY "${options// /$'\n'}"
    return
  fi
  if [[ -z $command ]]; then
    _kelp_offer COMPREPLY "${commands// /$'\n'}"
    return
  fi
  case $command:$count in
    entries:0 | entry:0 | log:0 | changes:0)
      _kelp_offer COMPREPLY "${tables// /$'\n'}"
      ;;
    users:0)
      _kelp_offer COMPREPLY $'inLifIndex\nvlanEditProfile\nremarkProfile'
      ;;
    ls:0 | get:0 | set:0 | call:0 | watch:0)
      _kelp_offer COMPREPLY "$("${words[0]}" ls --complete "${where[@]}" -- "$current" 2> /dev/null)"
      # A path that goes on has no blank behind it.
      compopt -o nospace 2> /dev/null
      ;;
  esac
}

complete -F _kelp kelp
