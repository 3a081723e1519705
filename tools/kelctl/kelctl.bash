# bash completion for kelctl: commands, their options, and the values options take.
_kelctl() {
    local cur prev words cword
    _init_completion 2>/dev/null || {
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD-1]}
        words=("${COMP_WORDS[@]}")
        cword=$COMP_CWORD
    }
    local commands="list dump get add modify delete filter match refresh data-call emergency
        attach match-attach-id apply-classes apply-types carrier run shell help status monitor"
    local global="--modem --embedded --seed --state --sub --timeout --json --show-secrets
        --truncate --reference --verbose --version --help"
    local settings="--apn --ip --roam-ip --types --auth --user --password --class --clat
        --emergency-calls --disabled --max-conns --max-conns-time --wait-time"

    case $prev in
        --ip | --roam-ip) COMPREPLY=($(compgen -W "v4 v6 v4v6" -- "$cur")); return ;;
        --tech) COMPREPLY=($(compgen -W "3gpp 3gpp2" -- "$cur")); return ;;
        --auth) COMPREPLY=($(compgen -W "none pap chap pap_chap" -- "$cur")); return ;;
        --class) COMPREPLY=($(compgen -W "ims admn inet app" -- "$cur")); return ;;
        --clat | --emergency-calls | --disabled | --kel | --ia)
            COMPREPLY=($(compgen -W "yes no" -- "$cur")); return ;;
        --types)
            COMPREPLY=($(compgen -W "default mms supl dun hipri fota ims cbs ia emergency mcx
                xcap none" -- "$cur")); return ;;
        --mvno-type) COMPREPLY=($(compgen -W "spn imsi gid iccid" -- "$cur")); return ;;
        --seed | --state) COMPREPLY=($(compgen -f -- "$cur")); return ;;
        --modem | -m) COMPREPLY=($(compgen -d -- "$cur")); return ;;
        --apn | -a | --user | --password | --sub | --timeout | -t | --max-conns | \
            --max-conns-time | --wait-time | --id | --criteria | --mcc | --mnc | --mvno-match | \
            --count)
            return ;;
    esac

    # The command is the first word that is neither an option nor an option's value.
    local i command=""
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            --modem | -m | --seed | --state | --sub | --timeout | -t) ((i++)) ;;
            -*) ;;
            *) command=${words[i]}; break ;;
        esac
    done
    if [[ -z $command ]]; then
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W "$global" -- "$cur"))
        else
            COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        fi
        return
    fi

    local options=""
    case $command in
        list | dump) options="" ;;
        refresh) options="--started --completed" ;;
        get | delete) options="--tech" ;;
        add) options="$settings --tech --persistent --ia" ;;
        modify) options="$settings --tech" ;;
        filter | match) options="$settings --tech --id --kel --ia --criteria" ;;
        data-call) options="$settings --tech --allow-update" ;;
        emergency) options="$settings" ;;
        attach | match-attach-id) options="$settings --allow-update" ;;
        apply-classes) options="$settings --tech --and --dry-run" ;;
        apply-types) options="$settings --allow-update --and --dry-run" ;;
        carrier) options="--mcc --mnc --mvno-type --mvno-match --dry-run --allow-update --create" ;;
        run | shell) options="--echo" ;;
        status) options="" ;;
        monitor) options="--count --no-initial" ;;
        help) COMPREPLY=($(compgen -W "$commands" -- "$cur")); return ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options $global" -- "$cur"))
    elif [[ $command == run || $command == carrier ]]; then
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
}
complete -F _kelctl kelctl
