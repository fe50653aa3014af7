# Completion of velkor-trace for fish.
set --local commands summary explain
complete --command velkor-trace --condition "not __fish_seen_subcommand_from $commands" --arguments summary \
    --description "Say what happened in all"
complete --command velkor-trace --condition "not __fish_seen_subcommand_from $commands" --arguments explain \
    --description "Say what a line or a number means"
complete --command velkor-trace --long-option errors --description "Only refused calls, and those with an error line"
complete --command velkor-trace --long-option since --exclusive --description "Only calls from this time of the day on"
complete --command velkor-trace --long-option call --exclusive --description "Only calls of this function"
complete --command velkor-trace --long-option session --exclusive --description "Only calls that name this session"
complete --command velkor-trace --long-option slow --exclusive --description "Only calls that took at least this long"
complete --command velkor-trace --long-option follow --description "Show calls as they come"
complete --command velkor-trace --long-option json --description "Print JSON, one object a call"
complete --command velkor-trace --long-option html --require-parameter --description "Write one page for a browser"
complete --command velkor-trace --long-option redact --description "Hide hashes, inputs, identifiers, labels and paths"
complete --command velkor-trace --long-option no-redact --description "Show them on a page too"
complete --command velkor-trace --long-option no-pager --description "Do not use a pager"
complete --command velkor-trace --long-option version --description "Print the version"
complete --command velkor-trace --short-option h --long-option help --description "Print help"
