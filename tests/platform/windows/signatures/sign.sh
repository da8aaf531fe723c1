#!/usr/bin/env bash
# Signs a copy of a program, NAME.signed.exe, by a certificate that is made for it: sign.sh NAME.exe
set -euo pipefail

signed=${1%.exe}.signed.exe
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
rm -f "$signed"
openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -utf8 -subj '/O=Korvane/CN=Korvane 测试' \
    -addext extendedKeyUsage=codeSigning -keyout "$work/key" -out "$work/certificate" 2>"$work/log" || { cat "$work/log"; exit 1; }
osslsigncode sign -h sha256 -certs "$work/certificate" -key "$work/key" -in "$1" -out "$signed" \
    >"$work/log" || { cat "$work/log"; exit 1; }
