# Completion of velkor-trace for bash.
_velkor_trace() {
    local current=${COMP_WORDS[COMP_CWORD]} options commands
    options="--errors --since --call --session --slow --follow --json --html --redact --no-redact --no-pager --version --help"
    commands="summary explain"
    case ${COMP_WORDS[COMP_CWORD - 1]} in
    --since | --slow | --session | --call) return ;;
    esac
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current"; compgen -f -- "$current")
    fi
}
complete -o filenames -F _velkor_trace velkor-trace
