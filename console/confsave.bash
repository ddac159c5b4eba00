# Completion of confsave's command line in bash. The program itself says what can come next.

_confsave() {
    local current=${COMP_WORDS[COMP_CWORD]}
    local candidates
    candidates=$(confsave --complete "${COMP_WORDS[@]:1:COMP_CWORD-1}" 2>/dev/null)
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$current")
}

complete -o default -F _confsave confsave
