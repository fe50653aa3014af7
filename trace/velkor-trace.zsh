#compdef velkor-trace
# Completion of velkor-trace for zsh.
_velkor_trace_functions() {
    compadd C_Initialize C_Finalize C_GetSlotList C_GetTokenInfo C_OpenSession C_CloseSession C_Login C_Logout \
        C_FindObjectsInit C_FindObjects C_GetAttributeValue C_CreateObject C_GenerateKeyPair C_DeriveKey C_SignInit \
        C_Sign C_VerifyInit C_Verify C_EncryptInit C_Encrypt C_DecryptInit C_Decrypt
}

_velkor_trace_first() {
    _alternative 'commands:command:((summary\:"say what happened in all" explain\:"say what a line or a number means"))' \
        'files:log:_files'
}

_arguments -s -S \
    '--errors[only calls that were refused or have an error line]' \
    '--since[only calls from this time of the day on]:time as 10\:30: ' \
    '--call[only calls of this function]:function:_velkor_trace_functions' \
    '--session[only calls whose lines name this session]:session: ' \
    '--slow[only calls that took at least this long]:duration as 200ms: ' \
    '--follow[show calls as they come]' \
    '--json[print JSON, one object a call]' \
    '--html[write one page for a browser]:page:_files -g "*.html"' \
    '--redact[hide hashes, inputs, identifiers, labels and paths]' \
    '--no-redact[show them on a page too]' \
    '--no-pager[do not use a pager]' \
    '(- *)--version[print the version]' \
    '(- *)'{-h,--help}'[print help]' \
    '1:command or log:_velkor_trace_first' \
    '*:log:_files'
