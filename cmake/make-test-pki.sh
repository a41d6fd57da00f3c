#!/usr/bin/env bash
# Makes the throw-away test PKI: make-test-pki.sh <openssl> <folder>.
# root.crt/root.der: the CA; quorvane.* and other.*: code-signing certificates.
set -euo pipefail
openssl=$1
dir=$2
mkdir -p "$dir"
cd "$dir"

"$openssl" req -x509 -newkey rsa:2048 -nodes -days 3650 -keyout root.key -out root.crt \
    -subj "/O=Zeph Test/CN=Zeph Test Root CA" \
    -addext "basicConstraints=critical,CA:TRUE" \
    -addext "keyUsage=critical,keyCertSign,cRLSign" 2>/dev/null
"$openssl" x509 -in root.crt -outform DER -out root.der

cat >signer.ext <<'EXT'
basicConstraints=CA:FALSE
keyUsage=critical,digitalSignature
extendedKeyUsage=codeSigning
subjectKeyIdentifier=hash
authorityKeyIdentifier=keyid
EXT

# signer <name> <subject>
signer() {
    "$openssl" req -newkey rsa:2048 -nodes -keyout "$1.key" -out "$1.csr" -subj "$2" 2>/dev/null
    "$openssl" x509 -req -in "$1.csr" -CA root.crt -CAkey root.key -days 3650 \
        -set_serial "0x$("$openssl" rand -hex 8)" -extfile signer.ext -out "$1.crt" 2>/dev/null
    rm "$1.csr"
}
signer quorvane "/O=Quorvane, Inc./CN=Quorvane, Inc."
signer other "/O=Otherco/CN=Otherco Test Signer"
