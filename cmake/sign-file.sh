#!/usr/bin/env bash
# Signs a file in place: sign-file.sh <pki>/<signer> <file>, with <signer>.crt
# and <signer>.key. Quiet unless signing fails.
set -euo pipefail
signer=$1
file=$2
signed="$file.signing"
if ! output=$("${OSSLSIGNCODE:-osslsigncode}" sign -certs "$signer.crt" -key "$signer.key" \
    -h sha256 -in "$file" -out "$signed" 2>&1); then
    echo "$output" >&2
    rm -f "$signed"
    exit 1
fi
mv -f "$signed" "$file"
