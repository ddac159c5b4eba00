# Completion of confsave's command line in bash. The program itself says what can come next.

_confsave() {
    # Bash parts words at "@", ":" and "=", too: what no blank parts is one word.
    local -a words=("${COMP_WORDS[0]}")
    local i line=$COMP_LINE
    for ((i = 1; i <= COMP_CWORD; i++)); do
        line=${line#*"${COMP_WORDS[i - 1]}"}
        case $line in
            [[:blank:]]*) words+=("${COMP_WORDS[i]}") ;;
            *) words[-1]+=${COMP_WORDS[i]} ;;
        esac
    done
    local current=${words[-1]} candidate
    # What bash replaces: what is behind the last of them, "@" included.
    local replaced=${current##*[:=]}
    [[ $replaced != *@* ]] || replaced=@${replaced##*@}
    COMPREPLY=()
    while IFS= read -r candidate; do
        candidate=${candidate%%$'\t'*}
        # Any file: bash offers them when nothing else is offered.
        [[ -n $candidate$current ]] || { COMPREPLY=() && return; }
        [[ $candidate != "$current"* ]] || COMPREPLY+=("${candidate:${#current} - ${#replaced}}")
    done < <(confsave --complete "${words[@]:1:${#words[@]} - 2}" 2>/dev/null)
}

complete -o default -F _confsave confsave
