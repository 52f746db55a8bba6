# Bash completion for fiscora. The installed command itself lists its options, operations and faults.

_fiscora_options() { "$1" ${2:+"$2"} --help 2>/dev/null | grep -oE '^ +(-h,)?--[a-z-]+' | grep -oE -- '--[a-z-]+'; }

# Files ($1: -f) or folders (-d) that begin with $2.
_fiscora_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen "$1" -- "$2")
}

_fiscora() {
    local tool=${COMP_WORDS[0]} word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local subcommand="" operations i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; ++i)); do
        [[ ${COMP_WORDS[i]} == -* ]] || { subcommand=${COMP_WORDS[i]}; break; }
    done

    if [[ $subcommand == sim ]]; then
        for ((; i < COMP_CWORD; ++i)); do
            [[ ${COMP_WORDS[i]} == -- ]] || continue
            # Any command with its own arguments may follow "--".
            declare -F _command_offset >/dev/null && _command_offset $((i + 1))
            return
        done
    fi

    # Bash makes "=" a word of its own, and "@" too unless bash-completion is loaded.
    if [[ $word == = || $word == @ ]]; then previous=$word word=""; fi
    [[ $previous != = ]] || previous=${COMP_WORDS[COMP_CWORD - 1 - (${#word} > 0)]}

    case $subcommand,$previous in
        sim,--state) mapfile -t COMPREPLY < <(compgen -W "active blocked not-activated" -- "$word") ;;
        sim,--fault) mapfile -t COMPREPLY < <(
            compgen -W "$("$tool" sim --list-faults | sed -nE 's/^([a-z-]+).*/\1/p')" -- "$word") ;;
        log,--dir) _fiscora_files -d "$word" ;;
        log,--svg | call,--out | call,@ | sim,--ledger) _fiscora_files -f "$word" ;;
        ,*) mapfile -t COMPREPLY < <(
            compgen -W "sim call doctor log $(_fiscora_options "$tool")" -- "$word") ;;
        *)
            if [[ $word == -* ]]; then
                mapfile -t COMPREPLY < <(compgen -W "$(_fiscora_options "$tool" "$subcommand")" -- "$word")
            elif [[ $subcommand == call && $word == @* ]]; then
                mapfile -t COMPREPLY < <(compgen -P @ -f -- "${word#@}")
            elif [[ $subcommand == call ]]; then
                operations=$("$tool" call --list | cut -f 1)
                # Only once: arguments follow the operation.
                grep -qxF "$operations" <(printf '%s\n' "${COMP_WORDS[@]:0:COMP_CWORD}") ||
                    mapfile -t COMPREPLY < <(compgen -W "$operations" -- "$word")
            fi
            ;;
    esac
}

complete -F _fiscora fiscora
