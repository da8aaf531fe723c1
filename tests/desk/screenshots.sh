#!/usr/bin/env bash
# Makes pictures of the desk's windows, on a screen that nobody sees: screenshots.sh DIRECTORY.
# Built by: cmake --build --preset dev --target desk_pictures
set -euo pipefail

program=$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")/../../build/dev/tests/desk_pictures
mkdir -p "$1"
export QT_QPA_PLATFORM=offscreen LC_ALL=''
LANG=C "$program" "$1" ''
LANG=C "$program" "$1" -dark dark
LANG=en_US.UTF-8 "$program" "$1" -english
QT_SCALE_FACTOR=2 LANG=C "$program" "$1" -large
