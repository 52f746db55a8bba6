# Bash completion of fiscora. Options, operations and faults are those that the installed command itself lists.

_fiscora_options() { "$1" ${2:+"$2"} --help 2>/dev/null | grep -oE '^ +(-h,)?--[a-z-]+' | grep -oE -- '--[a-z-]+'; }

# Words that begin the lines of a list in the help, behind the heading $1.
_fiscora_listed() { sed -n "/^$1:/,\$s/^  \([A-Za-z]*\) .*/\1/p"; }

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
            # Behind "--" stands any command with its own arguments.
            declare -F _command_offset >/dev/null && _command_offset $((i + 1))
            return
        done
    fi

    # "=" is a word of its own, as bash breaks a line, and "@" where bash-completion has not been loaded.
    if [[ $word == = || $word == @ ]]; then previous=$word word=""; fi
    [[ $previous != = ]] || previous=${COMP_WORDS[COMP_CWORD - 1 - (${#word} > 0)]}

    case $subcommand,$previous in
        sim,--state) mapfile -t COMPREPLY < <(compgen -W "active blocked not-activated" -- "$word") ;;
        sim,--fault) mapfile -t COMPREPLY < <(
            compgen -W "$("$tool" sim --list-faults | sed -nE 's/^([a-z-]+).*/\1/p')" -- "$word") ;;
        log,--dir) _fiscora_files -d "$word" ;;
        log,--svg | call,--out | call,@) _fiscora_files -f "$word" ;;
        ,*) mapfile -t COMPREPLY < <(
            compgen -W "$("$tool" --help | _fiscora_listed Subcommands) $(_fiscora_options "$tool")" -- "$word") ;;
        *)
            if [[ $word == -* ]]; then
                mapfile -t COMPREPLY < <(compgen -W "$(_fiscora_options "$tool" "$subcommand")" -- "$word")
            elif [[ $subcommand == call && $word == @* ]]; then
                mapfile -t COMPREPLY < <(compgen -P @ -f -- "${word#@}")
            elif [[ $subcommand == call ]]; then
                operations=$("$tool" call --help | _fiscora_listed Operations)
                # Only once: behind the operation stand its arguments.
                grep -qxF "$operations" <(printf '%s\n' "${COMP_WORDS[@]:0:COMP_CWORD}") ||
                    mapfile -t COMPREPLY < <(compgen -W "$operations" -- "$word")
            fi
            ;;
    esac
}

complete -F _fiscora fiscora
