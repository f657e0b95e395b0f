# Completion of qorctl for bash.
_qorctl_threads() {
    qorctl -q --no-header ps --json 2>/dev/null | sed -n 's/^ *"name": "\(.*\)",$/\1/p'
}

_qorctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="ps top queue graph segments named acc reg trace post send wait-for snapshot report doctor metrics clean"
    local options="--json --from --exact --timeout --quiet --no-header --color --help --version"
    local command="" word IFS=$' \t\n'
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case " $commands " in *" $word "*) command=$word && break ;; esac
    done
    case "$previous" in
        --from|snapshot|report) mapfile -t COMPREPLY < <(compgen -f -- "$current") && return ;;
        --color) mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$current") && return ;;
        --format) mapfile -t COMPREPLY < <(compgen -W "text dot mermaid json" -- "$current") && return ;;
        queue|post|send|wait-for)
            IFS=$'\n'
            mapfile -t COMPREPLY < <(compgen -W "$(_qorctl_threads)" -- "$current") && return ;;
        reg) mapfile -t COMPREPLY < <(compgen -W "ls get dump set flush watch" -- "$current") && return ;;
        acc) mapfile -t COMPREPLY < <(compgen -W "step $options" -- "$current") && return ;;
    esac
    case "$command" in
        "") options="$commands $options" ;;
        graph) options="--format $options" ;;
        trace) options="--follow --lines --pid --grep --level --take $options" ;;
        post|send) options="--data $options" ;;
        top) options="--looks --interval $options" ;;
        doctor) options="--interval $options" ;;
        report) options="--registry $options" ;;
        clean) options="--all --dry-run $options" ;;
        wait-for) options="$(_qorctl_threads) $options" ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
}

complete -F _qorctl qorctl
