# Completion of velkor-softkey for bash.

# What a command takes.
_velkor_softkey_options() {
    local pin="--pin-env --pin-fd" so_pin="--so-pin-env --so-pin-fd" new_pin="--new-pin-env --new-pin-fd"
    local named="--label --id" usage="--usage --oaep-only"
    case $1 in
    create)
        echo "--serial --label --model --firmware --tries --tries-left --so-tries --so-tries-left --initial-pin" \
            "--initial-so-pin --scrypt-cost --bind-to-machine $pin $so_pin"
        ;;
    list) echo "--tree" ;;
    remove | restore) echo "--yes" ;;
    verify) echo "$pin" ;;
    set-pin) echo "--so --rekey --scrypt-cost $pin $new_pin $so_pin" ;;
    unlock) echo "$so_pin $new_pin" ;;
    generate | import-key) echo "$named $usage $pin" ;;
    import) echo "$named $usage $pin --passphrase-env --passphrase-fd" ;;
    import-certificate) echo "$named $pin" ;;
    export-certificate) echo "--format --der --out --passphrase-env --passphrase-fd" ;;
    public-key) echo "--format --der --out" ;;
    csr) echo "--subject --name --out $pin" ;;
    self-sign) echo "--subject --name --days --label --out $pin" ;;
    relabel) echo "--key --certificate $named $pin" ;;
    delete) echo "--key --certificate $pin" ;;
    doctor) echo "--module" ;;
    esac
}

# The keys of a folder, else of the usual one. Not as the tool lists them: it would make the folder.
_velkor_softkey_keys() {
    local folder=${1:-${VELKOR_SOFTKEY_HOME:-}} file
    if [[ -z $folder ]]; then
        folder=$HOME/.local/share/velkor-softkey
        [[ ${XDG_DATA_HOME:-} != /* ]] || folder=$XDG_DATA_HOME/velkor-softkey
    fi
    for file in "${folder/#\~/$HOME}"/*.velkorkey; do
        [[ ! -e $file ]] || basename "$file" .velkorkey
    done
}

# _velkor_softkey_argument COMMAND PLACE HOME: what may stand there; a dot for a file.
_velkor_softkey_argument() {
    case $1:$2 in
    :0)
        echo "create list info plug unplug remove verify backup restore set-pin unlock generate import import-key" \
            "import-certificate export-certificate public-key csr self-sign relabel delete doctor"
        ;;
    create:* | list:* | doctor:*) ;;
    restore:1 | backup:2 | import:2 | import-key:2 | import-certificate:2) echo . ;;
    restore:*) ;;
    *:1) _velkor_softkey_keys "$3" ;;
    generate:2) echo "RSA-1024 RSA-2048 RSA-3072 RSA-4096 P-256 P-384 P-521" ;;
    esac
}

# What may follow an option of a command; a dot for a file.
_velkor_softkey_value() {
    case $1 in
    --home | --out | --module) echo . ;;
    --usage) echo "sign decrypt all" ;;
    --format) if [[ $2 == public-key ]]; then echo "pem der openssh"; else echo "pem der pkcs12"; fi ;;
    --*-env) compgen -e ;;
    esac
}

_velkor_softkey() {
    local current=${COMP_WORDS[COMP_CWORD]} command="" place=0 home="" option="" word words
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ -n $option ]]; then
            [[ $option != --home ]] || home=$word
            option=""
            continue
        fi
        case $word in
        --json | --tree | --yes | --so | --rekey | --initial-pin | --initial-so-pin | --bind-to-machine) ;;
        --oaep-only | --der | --help | --version | -h) ;;
        --*) option=$word ;;
        *)
            command=${command:-$word}
            place=$((place + 1))
            ;;
        esac
    done
    if [[ -n $option ]]; then
        words=$(_velkor_softkey_value "$option" "$command")
    elif [[ $current == -* ]]; then
        words="$(_velkor_softkey_options "$command") --home --json --help"
        [[ -n $command ]] || words+=" --version"
    else
        words=$(_velkor_softkey_argument "$command" "$place" "$home")
    fi
    if [[ $words == . ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    fi
}
complete -F _velkor_softkey velkor-softkey
