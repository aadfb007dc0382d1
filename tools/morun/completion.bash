# Completion of the command morun for bash. Sub-commands, options and the values of options come from the tool's own help.

_morun_help() { "${COMP_WORDS[0]}" "$@" --help 2>/dev/null; }

# The values that the help of a sub-command lists for an option: `--weights TEXT:{f16,a8w8,a8w4}`.
_morun_values() {  # sub-command, option
  _morun_help "$1" | sed -nE "s/^  (-.,)?$2 [^{]*\{([^}]*)\}.*/\2/p" | tr , ' '
}

# Completes names of files that end in one of the given suffixes, and names of folders.
_morun_files() {  # word, suffixes
  local word=$1 suffix
  compopt -o filenames
  mapfile -t COMPREPLY < <(compgen -d -- "$word"; for suffix in "${@:2}"; do compgen -f -X "!*$suffix" -- "$word"; done)
}

_morun() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]} values
  COMPREPLY=()
  # Bash makes three words of --weights=f16, the second of which is the sign.
  [ "$word" != = ] || word=''
  [ "$before" != = ] || before=${COMP_WORDS[COMP_CWORD - 2]}
  if [ "$COMP_CWORD" -eq 1 ]; then
    values=$(_morun_help | sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p'; echo --help --version)
    mapfile -t COMPREPLY < <(compgen -W "$values" -- "$word")
    return
  fi
  case $word in
    -*)
      [[ $command != -* ]] || command=
      values=$(_morun_help ${command:+"$command"} | sed -nE 's/^  (-.,)?(--[a-z0-9-]+).*/\2/p')
      mapfile -t COMPREPLY < <(compgen -W "$values" -- "$word")
      return
      ;;
  esac
  case $before in
    --weights | --quantiser)
      mapfile -t COMPREPLY < <(compgen -W "$(_morun_values "$command" "$before")" -- "$word")
      return
      ;;
    --kernel)
      values=$(_morun_help "$command" | sed -nE '/^Kernels:/,$s/^  ([a-z0-9_]+).*/\1/p' | sort -u)
      mapfile -t COMPREPLY < <(compgen -W "$values" -- "$word")
      return
      ;;
    --form | --skip | --damping | --jobs | --repeat | --max-error | --seed | --shape) return ;;
    --report | --timeline) _morun_files "$word" .json; return ;;
    --json) [ "$command" != bench ] || { _morun_files "$word" .json; return; } ;;
  esac
  case $command in
    mm) _morun_files "$word" .npy .safetensors ;;
    pack) _morun_files "$word" .npy .safetensors .index.json ;;
    inspect) _morun_files "$word" .safetensors ;;
    make) [[ $before = -o || $before = --output ]] && _morun_files "$word" .npy ;;
    unpack) if [[ $before = -o || $before = --output ]]; then _morun_files "$word" .npy; else _morun_files "$word" .safetensors; fi ;;
  esac
}
complete -F _morun morun
