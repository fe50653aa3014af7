# Completion of velkor-softkey for fish.

# Whether the next word is the argument in that place; the command is in place 0.
function __velkor_softkey_at --argument-names place
    set --local flags --json --tree --yes --so --rekey --initial-pin --initial-so-pin --bind-to-machine \
        --oaep-only --der --help --version -h
    set --local tokens (commandline --tokenize --cut-at-cursor --current-process)
    set --erase tokens[1]
    set --local count 0
    set --local is_value 0
    for token in $tokens
        if test $is_value = 1
            set is_value 0
        else if contains -- $token $flags
            continue
        else if string match --quiet -- '--*' $token
            string match --quiet -- '*=*' $token; or set is_value 1
        else
            set count (math $count + 1)
        end
    end
    test $count = $place
end

# Not as the tool lists them: it would make the folder.
function __velkor_softkey_keys
    set --local folder $VELKOR_SOFTKEY_HOME
    if test -z "$folder"
        set folder $HOME/.local/share/velkor-softkey
        string match --quiet -- '/*' "$XDG_DATA_HOME"; and set folder $XDG_DATA_HOME/velkor-softkey
    end
    set --local tokens (commandline --tokenize --cut-at-cursor --current-process)
    if set --local place (contains --index -- --home $tokens)
        set folder $tokens[(math $place + 1)]
    end
    for file in $folder/*.velkorkey
        string replace --regex '.*/(.*)\.velkorkey$' '$1' -- $file
    end
end

complete --command velkor-softkey --no-files
complete --command velkor-softkey --long-option home --require-parameter --force-files \
    --description "Folder of the keys"
complete --command velkor-softkey --long-option json --description "Print results, warnings and failures as JSON"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --long-option version \
    --description "Print the version"
complete --command velkor-softkey --short-option h --long-option help --description "Print help"

complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments create \
    --description "Make a new software key and plug it in"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments list \
    --description "List all keys"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments info \
    --description "Show a key and what is on it"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments plug \
    --description "Plug a key in"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments unplug \
    --description "Unplug a key"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments remove \
    --description "Destroy a key and everything on it"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments verify \
    --description "Look for damage in a key"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments backup \
    --description "Write a copy of a key to a file"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments restore \
    --description "Put a key back from its backup"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments set-pin \
    --description "Change a PIN"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments unlock \
    --description "Set a new user PIN with the SO PIN"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments generate \
    --description "Generate a key pair"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments import \
    --description "Put the private key and the certificates of a file on a key"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments import-key \
    --description "Put a private key on a key"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments import-certificate \
    --description "Put a certificate on a key"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments export-certificate \
    --description "Write a certificate"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments public-key \
    --description "Write a public key"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments csr \
    --description "Request a certificate for a key pair"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments self-sign \
    --description "Put a certificate on a key that a key pair has signed for itself"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments relabel \
    --description "Change labels and IDs"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments delete \
    --description "Delete a key pair or a certificate"
complete --command velkor-softkey --condition "__velkor_softkey_at 0" --arguments doctor \
    --description "Find out why a host sees no token"

set --local keyed info plug unplug remove verify backup set-pin unlock generate import \
    import-key import-certificate export-certificate public-key csr self-sign relabel delete
complete --command velkor-softkey --condition "__fish_seen_subcommand_from $keyed; and __velkor_softkey_at 1" \
    --arguments "(__velkor_softkey_keys)" --description Key
complete --command velkor-softkey --condition "__fish_seen_subcommand_from generate; and __velkor_softkey_at 2" \
    --arguments "RSA-1024 RSA-2048 RSA-3072 RSA-4096 P-256 P-384 P-521" --description Kind
set --local reading backup import import-key import-certificate
complete --command velkor-softkey --condition "__fish_seen_subcommand_from $reading; and __velkor_softkey_at 2" \
    --force-files
complete --command velkor-softkey --condition "__fish_seen_subcommand_from restore; and __velkor_softkey_at 1" \
    --force-files

complete --command velkor-softkey --condition "__fish_seen_subcommand_from create" \
    --long-option serial --exclusive --description "Serial number"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create self-sign generate import" \
    --long-option label --exclusive --description "Label"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from import-key import-certificate relabel" \
    --long-option label --exclusive --description "Label"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create" \
    --long-option model --exclusive --description "Model"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create" \
    --long-option firmware --exclusive --description "Firmware version"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create" \
    --long-option tries --exclusive --description "Tries of the user PIN"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create" \
    --long-option tries-left --exclusive --description "Tries that are left of them"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create" \
    --long-option so-tries --exclusive --description "Tries of the SO PIN"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create" \
    --long-option so-tries-left --exclusive --description "Tries that are left of them"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create" \
    --long-option initial-pin --description "The user PIN is to be changed by its owner"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create" \
    --long-option initial-so-pin --description "The SO PIN is to be changed by its owner"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create set-pin" \
    --long-option scrypt-cost --exclusive --description "Cost of checking a PIN"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create" \
    --long-option bind-to-machine --description "Make the key useless elsewhere"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from list" \
    --long-option tree --description "Also list what is on them"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from remove restore" \
    --long-option yes --description "Do not ask"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from set-pin" \
    --long-option so --description "Change the SO PIN"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from set-pin" \
    --long-option rekey --description "Make a new master key as well"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from verify set-pin create generate import" \
    --long-option pin-env --exclusive --arguments "(set --names --export)" \
    --description "Environment variable that holds the PIN"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from import-key import-certificate csr" \
    --long-option pin-env --exclusive --arguments "(set --names --export)" \
    --description "Environment variable that holds the PIN"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from self-sign relabel delete" \
    --long-option pin-env --exclusive --arguments "(set --names --export)" \
    --description "Environment variable that holds the PIN"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from verify set-pin create generate import" \
    --long-option pin-fd --exclusive --description "File descriptor to read the PIN from"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from import-key import-certificate csr" \
    --long-option pin-fd --exclusive --description "File descriptor to read the PIN from"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from self-sign relabel delete" \
    --long-option pin-fd --exclusive --description "File descriptor to read the PIN from"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create set-pin unlock" \
    --long-option so-pin-env --exclusive --arguments "(set --names --export)" \
    --description "Environment variable that holds the SO PIN"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from create set-pin unlock" \
    --long-option so-pin-fd --exclusive --description "File descriptor to read the SO PIN from"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from set-pin unlock" \
    --long-option new-pin-env --exclusive --arguments "(set --names --export)" \
    --description "Environment variable that holds the new PIN"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from set-pin unlock" \
    --long-option new-pin-fd --exclusive --description "File descriptor to read the new PIN from"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from import export-certificate" \
    --long-option passphrase-env --exclusive --arguments "(set --names --export)" \
    --description "Environment variable that holds the pass phrase"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from import export-certificate" \
    --long-option passphrase-fd --exclusive --description "File descriptor to read the pass phrase from"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from generate import import-key" \
    --long-option id --exclusive --description "Object ID, in hexadecimal"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from import-certificate relabel" \
    --long-option id --exclusive --description "Object ID, in hexadecimal"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from generate import import-key" \
    --long-option usage --exclusive --arguments "sign decrypt all" --description "What the key may do"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from generate import import-key" \
    --long-option oaep-only --description "Decrypt OAEP alone"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from relabel delete" \
    --long-option key --exclusive --description "Number of a key pair"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from relabel delete" \
    --long-option certificate --exclusive --description "Number of a certificate"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from public-key" \
    --long-option format --exclusive --arguments "pem der openssh" --description "Form of the output"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from export-certificate" \
    --long-option format --exclusive --arguments "pem der pkcs12" --description "Form of the output"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from export-certificate public-key" \
    --long-option der --description "Write DER"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from export-certificate public-key csr" \
    --long-option out --require-parameter --force-files --description "File to write"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from self-sign" \
    --long-option out --require-parameter --force-files --description "File to write"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from csr self-sign" \
    --long-option subject --exclusive --description "Whose key it is"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from csr self-sign" \
    --long-option name --exclusive --description "Another name"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from self-sign" \
    --long-option days --exclusive --description "Days for which it is valid"
complete --command velkor-softkey --condition "__fish_seen_subcommand_from doctor" \
    --long-option module --require-parameter --force-files --description "Module that the host loads"
