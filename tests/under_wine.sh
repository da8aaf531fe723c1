#!/usr/bin/env bash
# Runs a program of the tests for Windows under Wine. Beside a debugger's channel the framework's tests
# say nothing where there is no console, so their report is taken from a file.
# Run: under_wine.sh PROGRAM.exe [ARGUMENT...]
set -euo pipefail

here=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
program=$1
shift
report=$(mktemp "${program%.exe}-XXXXXX.txt")
trap 'rm -f "$report"' EXIT
code=0
"$here/../packaging/wine.sh" "$program" "$@" -o "Z:${report//\//\\},txt" || code=$?
tr -d '\r' <"$report"
exit "$code"
