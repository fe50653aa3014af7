#compdef velkor-softkey
# Completion of velkor-softkey for zsh.
_velkor_softkey_commands() {
    local -a commands=(
        'create:make a new software key and plug it in'
        'list:list all keys'
        'info:show a key and what is on it'
        'plug:plug a key in'
        'unplug:unplug a key'
        'remove:destroy a key and everything on it'
        'verify:look for damage in a key'
        'backup:write a copy of a key to a file'
        'restore:put a key back from its backup'
        'set-pin:change a PIN'
        'unlock:set a new user PIN with the SO PIN'
        'generate:generate a key pair'
        'import:put the private key and the certificates of a file on a key'
        'import-key:put a private key on a key'
        'import-certificate:put a certificate on a key'
        'export-certificate:write a certificate'
        'public-key:write a public key'
        'csr:request a certificate for a key pair'
        'self-sign:put a certificate on a key that a key pair has signed for itself'
        'relabel:change labels and IDs'
        'delete:delete a key pair or a certificate'
        'doctor:find out why a host sees no token'
    )
    _describe command commands
}

# Not as the tool lists them: it would make the folder.
_velkor_softkey_keys() {
    local folder=${keys_home:-$VELKOR_SOFTKEY_HOME}
    if [[ -z $folder ]]; then
        folder=$HOME/.local/share/velkor-softkey
        [[ $XDG_DATA_HOME != /* ]] || folder=$XDG_DATA_HOME/velkor-softkey
    fi
    local -a keys=(${~folder}/*.velkorkey(N:t:r))
    compadd -a keys
}

# What a command takes; its name is the first word.
_velkor_softkey_arguments() {
    local variable=':variable:_parameters -g "*export*"' descriptor=':descriptor: ' key='1:key:_velkor_softkey_keys'
    local file='2:file:_files' number='2:number: '
    local -a global=(
        '--home[folder of the keys]:folder:_files -/'
        '--json[print results, warnings and failures as JSON]'
        '(- *)'{-h,--help}'[print help]'
    )
    local -a pin=(
        "(--pin-fd)--pin-env[environment variable that holds the PIN]$variable"
        "(--pin-env)--pin-fd[file descriptor to read the PIN from]$descriptor"
    )
    local -a so_pin=(
        "(--so-pin-fd)--so-pin-env[environment variable that holds the SO PIN]$variable"
        "(--so-pin-env)--so-pin-fd[file descriptor to read the SO PIN from]$descriptor"
    )
    local -a new_pin=(
        "(--new-pin-fd)--new-pin-env[environment variable that holds the new PIN]$variable"
        "(--new-pin-env)--new-pin-fd[file descriptor to read the new PIN from]$descriptor"
    )
    local -a pass_phrase=(
        "(--passphrase-fd)--passphrase-env[environment variable that holds the pass phrase of the file]$variable"
        "(--passphrase-env)--passphrase-fd[file descriptor to read the pass phrase from]$descriptor"
    )
    local -a named=('--label[label]:label: ' '--id[object ID, in hexadecimal]:object ID: ')
    local -a usage=(
        '--usage[what the key may do]:usage:(sign decrypt all)'
        '--oaep-only[decrypt OAEP alone]'
    )
    local -a object=(
        '(--certificate)--key[number of a key pair]:number: '
        '(--key)--certificate[number of a certificate]:number: '
    )
    local -a request=(
        '--subject[whose key it is]:name as CN=Ann,O=Example: '
        '*--name[another name]:host, address, mail address or URI: '
        '--out[file to write]:file:_files'
    )
    local -a output=('(--format)--der[write DER]' '--out[file to write]:file:_files')
    case $words[1] in
    create)
        _arguments $global $pin $so_pin \
            '--serial[serial number]:serial number: ' \
            '--label[label]:label: ' \
            '--model[model]:model: ' \
            '--firmware[firmware version]:version: ' \
            '--tries[tries of the user PIN]:tries: ' \
            '--tries-left[tries that are left of them]:tries: ' \
            '--so-tries[tries of the SO PIN]:tries: ' \
            '--so-tries-left[tries that are left of them]:tries: ' \
            '--initial-pin[the user PIN is to be changed by its owner]' \
            '--initial-so-pin[the SO PIN is to be changed by its owner]' \
            '--scrypt-cost[cost of checking a PIN]:power of two: ' \
            '--bind-to-machine[make the key useless elsewhere]'
        ;;
    list) _arguments $global '--tree[also list what is on them]' ;;
    info | plug | unplug) _arguments $global $key ;;
    remove) _arguments $global $key '--yes[do not ask]' ;;
    verify) _arguments $global $key $pin ;;
    backup) _arguments $global $key $file ;;
    restore) _arguments $global '1:backup:_files' '--yes[replace the key that is there]' ;;
    set-pin)
        _arguments $global $key $pin $new_pin $so_pin \
            '(--rekey)--so[change the SO PIN]' \
            '(--so --scrypt-cost)--rekey[make a new master key as well]' \
            '(--rekey)--scrypt-cost[new cost of checking the PIN]:power of two: '
        ;;
    unlock) _arguments $global $key $so_pin $new_pin ;;
    generate)
        _arguments $global $key $named $usage $pin \
            '2:kind:(RSA-1024 RSA-2048 RSA-3072 RSA-4096 P-256 P-384 P-521)'
        ;;
    import) _arguments $global $key $file $named $usage $pin $pass_phrase ;;
    import-key) _arguments $global $key $file $named $usage $pin ;;
    import-certificate) _arguments $global $key $file $named $pin ;;
    export-certificate)
        _arguments $global $key $number $output $pass_phrase '(--der)--format[form]:form:(pem der pkcs12)'
        ;;
    public-key) _arguments $global $key $number $output '(--der)--format[form]:form:(pem der openssh)' ;;
    csr) _arguments $global $key $number $request $pin ;;
    self-sign)
        _arguments $global $key $number $request $pin \
            '--days[days for which it is valid]:days: ' \
            '--label[label]:label: '
        ;;
    relabel) _arguments $global $key $object $named $pin ;;
    delete) _arguments $global $key $object $pin ;;
    doctor) _arguments $global '--module[module that the host loads]:module:_files' ;;
    esac
}

_velkor_softkey() {
    local curcontext=$curcontext state state_descr line keys_home
    local -A opt_args
    _arguments -C \
        '--home[folder of the keys]:folder:_files -/' \
        '--json[print results, warnings and failures as JSON]' \
        '(- *)--version[print the version]' \
        '(- *)'{-h,--help}'[print help]' \
        '1:command:_velkor_softkey_commands' \
        '*::argument:->argument' && return
    [[ $state == argument ]] || return
    keys_home=$opt_args[--home]
    _velkor_softkey_arguments
}

_velkor_softkey "$@"
