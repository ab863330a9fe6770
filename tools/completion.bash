# bash completion for tavrixctl, which is asked what may follow.
_tavrixctl() {
    local line=${COMP_LINE:0:COMP_POINT} words=() piece='' offer prefix i
    # Bash breaks words at '=' and ':' too: what no blank divides is one word.
    for ((i = 0; i <= COMP_CWORD; ++i)); do
        if ((i == 0)) || [[ $line == [[:space:]]* ]]; then
            words+=("")
        fi
        line=${line#"${line%%[![:space:]]*}"}
        piece=${COMP_WORDS[i]}
        if ((i == COMP_CWORD)); then
            piece=$line # what follows the cursor stays out
        fi
        words[${#words[@]} - 1]+=$piece
        line=${line#"$piece"}
    done
    # Only the last piece is replaced, and a break between pieces stays as it is.
    if [[ $piece != *[!=:]* ]]; then
        piece=''
    fi
    prefix=${words[${#words[@]} - 1]%"$piece"}
    COMPREPLY=()
    while IFS= read -r offer; do
        offer=${offer#"$prefix"}
        if [[ $piece != [\'\"]* ]]; then
            printf -v offer %q "$offer"
        elif [[ $offer == *[\'\"\`\$\\!]* ]]; then
            continue # the quotes that are open would not keep it from the shell
        fi
        COMPREPLY+=("$offer")
    done < <(tavrixctl __complete "${words[@]:1}" 2>/dev/null)
    if [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *= ]]; then
        compopt -o nospace 2>/dev/null # the value follows
    fi
}
complete -o default -o nosort -F _tavrixctl tavrixctl
