# Completion of kavo-publish and kavo-stat for bash: the options are those that --help lists.
_kavo() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case $previous in
    --codec) mapfile -t COMPREPLY < <(compgen -W "h264 jpeg" -- "$current") ;;
    --size | --fps | --bitrate | --port | --name | --duration) ;;
    *)
      if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$("$1" --help | grep -oE -- '--[a-z-]+')" -- "$current")
      else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
      fi
      ;;
  esac
}
complete -o filenames -F _kavo kavo-publish kavo-stat
