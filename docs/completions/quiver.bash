# bash completion for quiver: commands, each command's options, and files for the arguments.
_quiver() {
    local cur prev words cword
    _init_completion || return
    local commands="list info ls stat find domains cat extract export edit verify passwd decrypt encrypt csv sample"
    local global="-v --verbose --password-file --version --help"
    local command="" i
    for ((i = 1; i < cword; i++)); do
        case "${words[i]}" in
            --password-file) ((i++)) ;;
            -*) ;;
            *) command="${words[i]}"; break ;;
        esac
    done
    case "$prev" in
        --password-file|--put) _filedir; return ;;
        --type) COMPREPLY=($(compgen -W "file dir symlink" -- "$cur")); return ;;
        --manifest) COMPREPLY=($(compgen -W "db mbdb" -- "$cur")); return ;;
        --domain|--min-size|--max-size|--newer|--older) return ;;
    esac
    if [[ -z "$command" ]]; then
        COMPREPLY=($(compgen -W "$commands $global" -- "$cur"))
        return
    fi
    local options
    case "$command" in
        list|info) options="--json --local" ;;
        ls) options="-l --long --json --jsonl --local" ;;
        stat) options="--json --local" ;;
        find) options="--domain --type --min-size --max-size --newer --older -i --ignore-case -l --long --json --jsonl --local" ;;
        domains) options="--json" ;;
        export) options="--zip --skip-damaged --manifest --iterations --sha1-iterations" ;;
        edit) options="--zip --replace-dir --skip-damaged --put --rm --mkdir --symlink" ;;
        verify) options="--quick --json" ;;
        passwd) options="--new-password-file --iterations --sha1-iterations" ;;
        decrypt) options="--zip --skip-damaged" ;;
        encrypt) options="--zip --skip-damaged --new-password-file --iterations --sha1-iterations" ;;
        csv) options="--exact" ;;
        sample) options="--zip" ;;
    esac
    if [[ "$cur" == -* ]]; then
        COMPREPLY=($(compgen -W "$options $global" -- "$cur"))
    else
        _filedir
    fi
}
complete -F _quiver quiver
