# bash completion for velmoractl                            -*- shell-script -*-
# Completes subcommands and options at every level, setting keys, services
# and roles (listed by `velmoractl __complete`, so they match the installed
# tool), NAME=yes|no for the feature switches, file names where a file or
# socket is expected, user names for user arguments, and the command line
# after `lock FILE --`. Works with and without bash-completion loaded.

# Sets COMPREPLY to the words of $1 that start with $cur.
_velmoractl_words() {
    local IFS=$' \t\n'
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$cur")
}

# Sets COMPREPLY to the file names that start with $cur; bash quotes them
# and marks directories with a "/".
_velmoractl_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
}

# Prints the list $1 (keys, services, roles or switches) as the tool being
# completed prints it, one item a line; nothing when it cannot be run.
_velmoractl_list() {
    local tool=${words[0]}
    [[ $tool == \~/* ]] && tool=$HOME/${tool#\~/}
    "$tool" __complete "$1" 2>/dev/null
}

# Without bash-completion: fills cur, prev, words and cword from COMP_WORDS,
# joined again where bash split a word at "=" (it is in COMP_WORDBREAKS), so
# that NAME=VALUE and --option=VALUE are one word as with bash-completion's
# `_init_completion -n =`. Two pieces belong together when no blank is
# between them in COMP_LINE and one of them is or ends with "=".
_velmoractl_init() {
    words=()
    cword=0
    local line=$COMP_LINE i w trimmed glued
    for ((i = 0; i < ${#COMP_WORDS[@]}; i++)); do
        w=${COMP_WORDS[i]}
        trimmed=${line#"${line%%[![:blank:]]*}"}
        glued=0
        if ((i > 0)) && [[ ${#trimmed} == "${#line}" ]] &&
            [[ $w == =* || ${words[${#words[@]} - 1]} == *= ]]; then
            glued=1
        fi
        if ((glued)); then
            words[${#words[@]} - 1]+=$w
        else
            words+=("$w")
        fi
        ((i == COMP_CWORD)) && cword=$((${#words[@]} - 1))
        line=${trimmed:${#w}}
    done
    cur=${words[cword]}
    prev=${words[cword - 1]}
}

# Sets COMPREPLY for the word `cur` (whole, "=" included) at `cword`.
_velmoractl_reply() {
    local global="--help --json --verbose --version"
    # The words typed before `cur`, without options and their values; a
    # "--" ends the options, and every word after it is kept.
    local -a args=()
    local i w skip=0 ended=0
    for ((i = 1; i < cword; i++)); do
        w=${words[i]}
        if ((ended)); then args+=("$w"); continue; fi
        if ((skip)); then skip=0; continue; fi
        case $w in
            --) args+=("--"); ended=1; continue ;;
            --*=*) continue ;;
            --role|--key|--server|--socket|--config|--enabled|--period|--retries|--timeout|--expire|--flags)
                skip=1; continue ;;
            -*) continue ;;
        esac
        args+=("$w")
    done

    if ((!ended)); then
        # The value of --option=VALUE is completed as if it were a word of
        # its own; bash replaces only the text after "=" anyway.
        local option=$prev split=0
        if [[ $cur == --?*=* ]]; then
            option=${cur%%=*}
            cur=${cur#*=}
            split=1
        fi
        case $option in
            --socket) _velmoractl_files; return ;;
            --enabled) _velmoractl_words "yes no"; return ;;
            --role) _velmoractl_words "$(_velmoractl_list roles)"; return ;;
            --key) _velmoractl_words "$(_velmoractl_list switches)"; return ;;
            --server|--config|--period|--retries|--timeout|--expire|--flags) return ;;
        esac
        # An unknown --option=VALUE: nothing to offer.
        ((split)) && return
    fi

    local n=${#args[@]}
    if ((n == 0)); then
        _velmoractl_words "route services script get features pop3 quota kv lock user query memcached $global"
        return
    fi
    local cmd=${args[0]}
    case $cmd in
        route|get)
            if [[ $cur == -* ]]; then
                _velmoractl_words "$global"
            else
                _velmoractl_words "$(_velmoractl_list keys)"
                # A family key ("personal-") is completed without a blank: its
                # instance name comes right after it.
                if ((${#COMPREPLY[@]} == 1)) && [[ ${COMPREPLY[0]} == *- ]]; then
                    compopt -o nospace 2>/dev/null
                fi
            fi ;;
        script)
            if [[ $cur == -* ]]; then
                _velmoractl_words "$global"
            elif ((n == 1)); then
                _velmoractl_words "$(_velmoractl_list services)"
            fi ;;
        services)
            _velmoractl_words "--role --key $global" ;;
        features)
            if ((n == 1)); then
                _velmoractl_words "get set $global"
            elif [[ ${args[1]} == set ]]; then
                if [[ $cur == *=* ]]; then
                    local name=${cur%%=*}
                    _velmoractl_words "$name=yes $name=no"
                else
                    compopt -o nospace 2>/dev/null
                    _velmoractl_words "disable_pgp= disable_smtp_sender_name= enable_sharing_link= is_custom_logo= enable_chat= enable_calendar= enable_externalsource= disable_shared_mailbox="
                fi
            fi ;;
        pop3)
            if ((n == 2)); then
                _velmoractl_words "status set start stop start-all stop-all list"
            elif ((n >= 3)); then
                case ${args[2]} in
                    set) _velmoractl_words "--enabled --period $global" ;;
                    start|stop) _velmoractl_words "$(compgen -u)" ;;
                    *) [[ $cur == -* ]] && _velmoractl_words "$global" ;;
                esac
            fi ;;
        quota)
            if ((n == 1)); then
                _velmoractl_words "usage limit warning attr clear-usage"
            elif ((n == 2)); then
                case ${args[1]} in
                    limit|warning|attr) _velmoractl_words "get set" ;;
                    usage|clear-usage) _velmoractl_words "$(compgen -u)" ;;
                esac
            elif ((n == 3)); then
                case ${args[1]} in
                    limit|warning|attr) _velmoractl_words "$(compgen -u)" ;;
                    usage|clear-usage) _velmoractl_words "$(compgen -u)" ;;
                esac
            fi ;;
        kv)
            if ((n == 1)); then
                _velmoractl_words "get set"
            elif ((n == 2)); then
                _velmoractl_files
            fi ;;
        lock)
            if ((ended)); then
                # args: lock FILE -- COMMAND ARGS...; the first word after
                # "--" is a command, the ones after it its arguments.
                local k after=-1
                for ((k = 0; k < n; k++)); do
                    [[ ${args[k]} == -- ]] && { after=$((n - k - 1)); break; }
                done
                if ((after == 0)); then
                    mapfile -t COMPREPLY < <(compgen -c -- "$cur" | sort -u)
                else
                    _velmoractl_files
                fi
            elif ((n == 1)) && [[ $cur != -* ]]; then
                _velmoractl_files
            else
                _velmoractl_words "--retries --timeout -- $global"
            fi ;;
        user)
            if ((n == 1)); then
                _velmoractl_words "name uid"
            elif [[ ${args[1]} == uid ]]; then
                _velmoractl_words "$(compgen -u)"
            fi ;;
        query)
            if ((n == 1)) && [[ $cur != -* ]]; then
                _velmoractl_files
            else
                _velmoractl_words "--timeout $global"
            fi ;;
        memcached)
            if ((n == 1)); then
                _velmoractl_words "--server --socket --config get set delete"
            elif [[ ${args[1]} == set ]]; then
                [[ $cur == -* ]] && _velmoractl_words "--expire --flags $global"
            fi ;;
    esac
}

_velmoractl() {
    local cur prev words cword
    if declare -F _init_completion >/dev/null 2>&1; then
        # -n =: NAME=VALUE and --option=VALUE stay one word.
        _init_completion -n = || return
    else
        _velmoractl_init
    fi
    local word=$cur
    _velmoractl_reply
    # When "=" breaks words, bash replaces only the text after the last "="
    # of the word: take what comes before it off every reply (as
    # bash-completion's __ltrim_colon_completions does for ":").
    if [[ $word == *=* && $COMP_WORDBREAKS == *=* ]]; then
        local head=${word%"${word##*=}"} i
        for i in "${!COMPREPLY[@]}"; do
            COMPREPLY[i]=${COMPREPLY[i]#"$head"}
        done
    fi
}
complete -F _velmoractl velmoractl
