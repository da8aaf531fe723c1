#!/usr/bin/env bash
# Fails where a text of the desk has no English, or an English text belongs to none any more.
set -euo pipefail

root=$1
translated=$root/src/desk/translations/korvane-desk_en.ts
fresh=$(mktemp --suffix=.ts)
trap 'rm -f "$fresh"' EXIT
cp "$translated" "$fresh"
cd "$root"
update=(lupdate -I src -locations none -no-obsolete src/desk -ts)
PATH=$PATH:/usr/lib/qt6/bin "${update[@]}" "$fresh" -silent
if grep -B 3 unfinished "$fresh" || ! diff "$translated" "$fresh"; then
    echo "To be done in $translated, after: ${update[*]} FILE" >&2
    exit 1
fi
