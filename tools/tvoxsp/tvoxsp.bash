# Bash completion for tvoxsp: source this file (or install it as
# /usr/share/bash-completion/completions/tvoxsp). Commands, path names and control names come
# from the tool itself (control names from `controls --names` of the card the line names), so
# the completion follows the build and the device it completes on.

# Offers the lines of $1 that start with the word being completed, each quoted for the shell.
_tvoxsp_lines()
{
    local line
    while IFS= read -r line; do
        [[ $line == "$cur"* ]] && COMPREPLY+=("$(printf '%q' "$line")")
    done <<<"$1"
}

_tvoxsp()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local tool=${COMP_WORDS[0]}
    COMPREPLY=()
    # The global options come before the command.
    local at=1
    while ((at < COMP_CWORD)) && [[ ${COMP_WORDS[at]} == -v || ${COMP_WORDS[at]} == --json ]]; do
        ((at++))
    done
    if ((COMP_CWORD == at)); then
        local commands
        commands=$("$tool" --help 2>/dev/null | sed -n 's/^  tvoxsp \([a-z0-9-]*\).*/\1/p')
        mapfile -t COMPREPLY < <(compgen -W "$commands --help --version --json -v" -- "$cur")
        return
    fi
    local command=${COMP_WORDS[at]} position=$((COMP_CWORD - at))
    local words=""
    case $command in
    calibrate | diagnose) words="--force" ;;
    report) words="--f0" ;;
    slot) ((position == 1)) && words="read write" ;;
    tuning)
        if ((position == 1)); then
            words="load delta params check seal"
        else
            [[ $cur == -* ]] && words="--force" ||
                { mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return; }
        fi
        ;;
    module)
        case $prev in
        swap) words="on off" ;;
        config) words="0 1" ;;
        module) words="on off swap config" ;;
        esac
        ;;
    reg) ((position == 1)) && words="read write update" ;;
    rtlog)
        [[ $prev == -o ]] && { mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return; }
        words="--interval --count --duration --csv -o"
        ;;
    monitor) words="--interval --count --duration --changes" ;;
    rtlog-plot)
        [[ $cur != -* ]] && { mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return; }
        words="-o"
        ;;
    bypass) words="T B on off" ;;
    swap) words="--dsp on off" ;;
    get | set | controls)
        if [[ $prev == -D ]]; then
            words=$(sed -n 's/^ *\([0-9]\+\) .*/\1/p' /proc/asound/cards 2>/dev/null)
        elif [[ $cur == -* || $command == controls ]]; then
            words="-D"
            [[ $command == get ]] && words+=" --dsp"
            [[ $command == controls ]] && words+=" --names"
        else
            # The control is the first word that is no option (nor -D's card).
            local i card=0 control_at=0
            for ((i = at + 1; i < COMP_CWORD; i++)); do
                case ${COMP_WORDS[i]} in
                -D) card=${COMP_WORDS[++i]} ;;
                -*) ;;
                *) ((control_at)) || control_at=$i ;;
                esac
            done
            if ((control_at == 0)); then
                _tvoxsp_lines "$("$tool" controls -D "$card" --names 2>/dev/null)"
                return
            fi
        fi
        ;;
    path)
        ((position == 1)) && words="--list --show"
        [[ $prev == --show ]] || ((position == 1)) &&
            words+=" $("$tool" path --list 2>/dev/null | cut -d' ' -f1)"
        ;;
    play)
        [[ $cur == -* ]] && words="--graph" ||
            { mapfile -t COMPREPLY < <(compgen -f -X '!*.[wW][aA][vV]' -- "$cur"); compopt -o plusdirs 2>/dev/null; return; }
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words --help" -- "$cur")
}
complete -F _tvoxsp tvoxsp
