# Bash completion for tvoxsp: source this file (or install it as
# /usr/share/bash-completion/completions/tvoxsp). Commands and path names come from the tool
# itself, so the completion follows the build it completes.
_tvoxsp()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local tool=${COMP_WORDS[0]}
    if ((COMP_CWORD == 1)); then
        local commands
        commands=$("$tool" --help 2>/dev/null | sed -n 's/^  tvoxsp \([a-z0-9-]*\).*/\1/p')
        mapfile -t COMPREPLY < <(compgen -W "$commands --help" -- "$cur")
        return
    fi
    local words=""
    case ${COMP_WORDS[1]} in
    report) words="--f0" ;;
    slot) ((COMP_CWORD == 2)) && words="read write" ;;
    tuning)
        if ((COMP_CWORD == 2)); then
            words="load delta params check seal"
        else
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
        fi
        ;;
    module)
        case $prev in
        swap) words="on off" ;;
        module) words="on off swap config" ;;
        esac
        ;;
    reg) ((COMP_CWORD == 2)) && words="read write update" ;;
    rtlog | monitor) ((COMP_CWORD == 2)) && words="--interval" ;;
    rtlog-plot)
        [[ $cur != -* ]] && { mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return; }
        words="-o"
        ;;
    bypass) words="T B on off" ;;
    swap) words="--dsp on off" ;;
    get) ((COMP_CWORD == 2)) && words="--dsp" ;;
    path)
        ((COMP_CWORD == 2)) &&
            words="--list $("$tool" path --list 2>/dev/null | cut -d' ' -f1)"
        ;;
    play)
        [[ $cur == -* ]] && words="--graph" ||
            { mapfile -t COMPREPLY < <(compgen -f -X '!*.[wW][aA][vV]' -- "$cur"); compopt -o plusdirs 2>/dev/null; return; }
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words --help" -- "$cur")
}
complete -F _tvoxsp tvoxsp
