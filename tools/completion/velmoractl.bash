# bash completion for velmoractl                            -*- shell-script -*-
# Completes subcommands and options at every level, file names where a file
# or socket is expected, and user names for user arguments.

_velmoractl_words() {
    COMPREPLY=($(compgen -W "$1" -- "$cur"))
}

_velmoractl() {
    local cur prev words cword
    if declare -F _init_completion >/dev/null 2>&1; then
        _init_completion -s || return
    else
        cur="${COMP_WORDS[COMP_CWORD]}"
        prev="${COMP_WORDS[COMP_CWORD-1]}"
        words=("${COMP_WORDS[@]}")
        cword=$COMP_CWORD
    fi

    local global="--help --json --verbose --version"
    # The words typed so far, without options and their values.
    local -a args=()
    local i w skip=0
    for ((i = 1; i < cword; i++)); do
        w="${words[i]}"
        if ((skip)); then skip=0; continue; fi
        case "$w" in
            --) args+=("--"); continue ;;
            --role|--key|--server|--socket|--enabled|--period|--retries|--timeout|--expire|--flags)
                skip=1; continue ;;
            -*) continue ;;
        esac
        args+=("$w")
    done

    case "$prev" in
        --socket) COMPREPLY=($(compgen -f -- "$cur")); return ;;
        --enabled) _velmoractl_words "yes no"; return ;;
        --role|--key|--server|--period|--retries|--timeout|--expire|--flags) return ;;
    esac

    local n=${#args[@]}
    if ((n == 0)); then
        _velmoractl_words "route services script get features pop3 quota kv lock user query memcached $global"
        return
    fi
    local cmd="${args[0]}"
    case "$cmd" in
        route|script|get)
            [[ $cur == -* ]] && _velmoractl_words "$global" ;;
        services)
            _velmoractl_words "--role --key $global" ;;
        features)
            if ((n == 1)); then
                _velmoractl_words "get set $global"
            elif [[ ${args[1]} == set ]]; then
                compopt -o nospace 2>/dev/null
                _velmoractl_words "disable_pgp= disable_smtp_sender_name= enable_sharing_link= is_custom_logo= enable_chat= enable_calendar= enable_externalsource= disable_shared_mailbox="
                if [[ $cur == *=* ]]; then
                    compopt +o nospace 2>/dev/null
                    local name="${cur%%=*}"
                    COMPREPLY=($(compgen -W "$name=yes $name=no" -- "$cur"))
                fi
            fi ;;
        pop3)
            if ((n == 2)); then
                _velmoractl_words "status set start stop start-all stop-all list"
            elif ((n >= 3)); then
                case "${args[2]}" in
                    set) _velmoractl_words "--enabled --period $global" ;;
                    start|stop) _velmoractl_words "$(compgen -u)" ;;
                    *) [[ $cur == -* ]] && _velmoractl_words "$global" ;;
                esac
            fi ;;
        quota)
            if ((n == 1)); then
                _velmoractl_words "usage limit warning attr clear-usage"
            elif ((n == 2)); then
                case "${args[1]}" in
                    limit|warning|attr) _velmoractl_words "get set" ;;
                    usage|clear-usage) _velmoractl_words "$(compgen -u)" ;;
                esac
            elif ((n == 3)); then
                case "${args[1]}" in
                    limit|warning|attr) _velmoractl_words "$(compgen -u)" ;;
                    usage|clear-usage) _velmoractl_words "$(compgen -u)" ;;
                esac
            fi ;;
        kv)
            if ((n == 1)); then
                _velmoractl_words "get set"
            elif ((n == 2)); then
                COMPREPLY=($(compgen -f -- "$cur"))
            fi ;;
        lock)
            local k
            for k in "${args[@]}"; do
                if [[ $k == -- ]]; then
                    COMPREPLY=($(compgen -c -- "$cur"))
                    return
                fi
            done
            if ((n == 1)) && [[ $cur != -* ]]; then
                COMPREPLY=($(compgen -f -- "$cur"))
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
                COMPREPLY=($(compgen -f -- "$cur"))
            else
                _velmoractl_words "--timeout $global"
            fi ;;
        memcached)
            if ((n == 1)); then
                _velmoractl_words "--server --socket get set delete"
            elif [[ ${args[1]} == set ]]; then
                [[ $cur == -* ]] && _velmoractl_words "--expire --flags $global"
            fi ;;
    esac
}
complete -F _velmoractl velmoractl
