# Bash completion for tvoxsim: source this file (or install it as
# /usr/share/bash-completion/completions/tvoxsim). The commands come from `tvoxsim --help`.
_tvoxsim()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local tool=${COMP_WORDS[0]}
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        local commands
        commands=$("$tool" --help 2>/dev/null | sed -n 's/^  \([a-z]\+\) .*/\1/p')
        mapfile -t COMPREPLY < <(compgen -W "$commands --help" -- "$cur")
        return
    fi
    local words=""
    case ${COMP_WORDS[1]} in
    init)
        [[ $cur == -* ]] && words="--force" ||
            { mapfile -t COMPREPLY < <(compgen -d -- "$cur"); return; }
        ;;
    env) mapfile -t COMPREPLY < <(compgen -d -- "$cur"); return ;;
    run)
        [[ $prev == --dir ]] && { mapfile -t COMPREPLY < <(compgen -d -- "$cur"); return; }
        words="--dir --"
        ;;
    journal | log) words="--clear" ;;
    persist) words="full normal" ;;
    speaker)
        case $prev in
        speaker) words="T B" ;;
        --fault) words="none open shorted calibration f0" ;;
        *) words="--ohms --f0 --fault" ;;
        esac
        ;;
    agm) words="mfc on off" ;;
    driver)
        case $prev in
        driver) words="module config slot journal fault" ;;
        fault) words="none absent ioctl chunk" ;;
        ioctl) words="set store fetch" ;;
        esac
        ;;
    control)
        case $prev in
        control) words="remove refuse restore --card" ;;
        *) words="--errno --card" ;;
        esac
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words --help" -- "$cur")
}
complete -F _tvoxsim tvoxsim
