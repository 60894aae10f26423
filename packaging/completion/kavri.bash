# Completion of kavri's command line in bash.
#
# The names of the cases are fixed; those of the faults are asked of the tool.

_kavriCases='initiatorSendPass initiatorSendRepeat initiatorRepeatStaticResponse
    initiatorRepeatEcho initiatorRepeatEchoNonBlocking initiatorRepeatCallback
    initiatorFailReceiveWithCallback initiatorRepeatEventCallback'

# The first column of the list.
_kavriFaults() {
    local name rest
    while read -r name rest; do
        printf '%s\n' "$name"
    done < <("$1" conformance --list-faults 2>/dev/null)
}

_kavriOptions() {
    case $1 in
        conformance)
            printf '%s ' --socket --own-broker --service-record --strict --library --name --case \
                --level --timeout --call-timeout --time-scale --prove --fault --junit --json --html \
                --repeat --until-fail --fail-on-leaks --shuffle --jobs --expect --write-expect \
                --baseline --list --list-faults --explain --help
            ;;
        bench)
            printf '%s ' --socket --category --command --payload --in-flight --seconds --json --help
            ;;
        status)
            printf '%s ' --socket --json --prometheus --watch --all --timeout --help
            ;;
        monitor)
            printf '%s ' --socket --category --process --user --connection --payload --json \
                --count --timeout --help
            ;;
        request)
            printf '%s ' --socket --timeout --count --rate --json --help
            ;;
        listen)
            printf '%s ' --socket --count --timeout --json --help
            ;;
        serve)
            printf '%s ' --socket --exec --answer --timeout --jobs --help
            ;;
        publish)
            printf '%s ' --socket --help
            ;;
        *)
            printf '%s ' conformance bench status monitor request listen serve publish --version \
                --help
            ;;
    esac
}

# Words for the value of an option, of which there may be none; fails where the
# option takes no value, or the name of a file.
_kavriValue() {
    local tool=$1 command=$2 option=$3
    case $command$option in
        conformance--case) printf '%s' "$_kavriCases" ;;
        conformance--level) echo must should may ;;
        conformance--fault) _kavriFaults "$tool" ;;
        conformance--explain) printf '%s\n' $_kavriCases && _kavriFaults "$tool" ;;
        conformance--timeout | conformance--call-timeout | conformance--time-scale) ;;
        conformance--repeat | conformance--shuffle | conformance--jobs | conformance--name) ;;
        bench--category | bench--command | bench--payload | bench--in-flight | bench--seconds) ;;
        status--watch | status--timeout) ;;
        monitor--user) compgen -u ;;
        monitor--category | monitor--process | monitor--connection | monitor--payload) ;;
        monitor--count | monitor--timeout) ;;
        request--timeout | request--count | request--rate | listen--count | listen--timeout) ;;
        serve--exec | serve--answer | serve--timeout | serve--jobs) ;;
        *) return 1 ;;
    esac
}

# How bash completes the names that an option takes: -d folders, -f files.
_kavriNames() {
    case $1$2 in
        conformance--library | conformance--html) echo -d ;;
        conformance--socket | bench--socket | status--socket | monitor--socket) echo -f ;;
        request--socket | listen--socket | serve--socket | publish--socket) echo -f ;;
        conformance--junit | conformance--json | conformance--expect) echo -f ;;
        conformance--write-expect | conformance--baseline) echo -f ;;
        conformance--service-record) echo -f ;;
        *) return 1 ;;
    esac
}

_kavri() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' index names
    COMPREPLY=()
    for ((index = 1; index < COMP_CWORD; ++index)); do
        case ${COMP_WORDS[index]} in
            --) return ;; # what follows is no option of the tool
            conformance | bench | status | monitor | request | listen | serve | publish)
                [[ -n $command ]] || command=${COMP_WORDS[index]}
                ;;
        esac
    done
    # "--option=value" comes as three words.
    if [[ $word == = ]]; then
        word=''
    elif [[ $before == = ]]; then
        before=${COMP_WORDS[COMP_CWORD - 2]}
    fi

    if names=$(_kavriNames "$command" "$before"); then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen "$names" -- "$word")
    elif names=$(_kavriValue "${COMP_WORDS[0]}" "$command" "$before"); then
        mapfile -t COMPREPLY < <(compgen -W "$names" -- "$word")
    else
        mapfile -t COMPREPLY < <(compgen -W "$(_kavriOptions "$command")" -- "$word")
    fi
}

complete -F _kavri kavri
