# Completion of fstore for bash: put it where bash-completion looks, or source it.
_fstore() {
    local -a answer
    local word current=${COMP_WORDS[COMP_CWORD]}
    COMPREPLY=()
    mapfile -t answer < <("${COMP_WORDS[0]}" complete "$COMP_CWORD" -- "${COMP_WORDS[@]}" 2>/dev/null)
    [[ $current == "=" ]] && current=
    case ${answer[0]} in
        :files) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        :folders) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
    esac
    if ((${#COMPREPLY[@]})); then
        compopt -o filenames 2>/dev/null
    fi
    for word in "${answer[@]:1}"; do
        printf -v word %q "${word%%$'\t'*}"
        COMPREPLY+=("$word")
    done
}
complete -F _fstore fstore
