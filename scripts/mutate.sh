#!/usr/bin/env bash
# Makes small changes of the sources and tells which of them no test notices: see scripts/mutate.py, which has the help.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
exec nice python3 scripts/mutate.py "$@"
