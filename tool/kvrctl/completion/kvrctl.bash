# Completion of kvrctl for bash: commands, options, and the volumes of the machine that --machine or KVR_MACHINE
# names. Installed as /usr/share/bash-completion/completions/kvrctl, or sourced.

# The words that may stand where the cursor is, given the words of the command before it (without options).
_kvrctl_words() {
    case "$1 $2" in
        " ") echo status watch volumes map debug protect unprotect discard merge removable enable disable config swap ;;
        "config ") echo get set check edit ;;
        "swap ") echo make remove stop ;;
        "removable ") echo protect hide allow ;;
    esac
}

_kvrctl_options() {
    case "$1 $2" in
        "status "* | "map "* | "config check") echo --json ;;
    esac
    case "$1 $2" in
        "watch "*) echo --json --interval --count ;;
        "volumes "*) echo --json --names ;;
        "map "*) echo --svg ;;
        "protect "*) echo --at-boot --until --dry-run ;;
        "unprotect "* | "discard "* | "merge "* | "enable "* | "disable "* | "removable "?*) echo --dry-run ;;
        "config set") echo --force --dry-run ;;
        "config edit") echo --force ;;
        "swap make") echo --no-wait --json ;;
    esac
    echo --help --machine
}

# Does the command take a volume as the word of that number behind it?
_kvrctl_takes_volume() {
    case "$1 $2" in
        "map "* | "protect "* | "unprotect "* | "discard "* | "merge "*) [ "$3" -eq 1 ] ;;
        "removable "?* | "swap make" | "swap remove") [ "$3" -eq 2 ] ;;
        *) false ;;
    esac
}

_kvrctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command="" sub="" count=-1 machine=() word i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --machine) machine=(--machine "${COMP_WORDS[++i]}") ;;
            --at-boot | --until | --svg | --interval | --count) ((++i)) ;;
            -*) ;;
            *)
                count=$((count + 1))
                if [ "$count" -eq 0 ]; then command=$word; elif [ "$count" -eq 1 ]; then sub=$word; fi
                ;;
        esac
    done
    case $previous in
        --machine) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
        --svg) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
        --at-boot) mapfile -t COMPREPLY < <(compgen -W "discard keep" -- "$current"); return ;;
        --until | --interval | --count) return ;;
    esac
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_kvrctl_options "$command" "$sub")" -- "$current")
    elif _kvrctl_takes_volume "$command" "$sub" "$((count + 1))"; then
        mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" "${machine[@]}" volumes --names 2>/dev/null)" -- "$current")
    elif [ "$command" = config ] && [[ $sub == set || $sub == check ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -W "$(_kvrctl_words "$command" "$sub")" -- "$current")
    fi
}
complete -F _kvrctl kvrctl
