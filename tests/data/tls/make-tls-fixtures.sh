#!/bin/sh
# Makes the certificates the CA-bundle unit tests read (run once; the output
# is committed, the keys are thrown away). Every certificate is valid until
# 2125, so the tests never see one expire.
#   root      CN=Kelp Fixture Root, self-signed CA
#   inter     CN=Kelp Fixture Intermediate, a CA issued by root
#   leaf      CN=leaf.test, issued by inter
#   impostor  CN=Kelp Fixture Root again, self-signed with another key
#   filler1/2 two unrelated self-signed CAs
#   der.crt   root in DER
set -eu
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
days=36500
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$work/$1.key" 2>/dev/null; }
ca() {
    key "$1"
    openssl req -x509 -new -key "$work/$1.key" -subj "/CN=$2" -days $days \
        -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign -out "$1.crt"
}
issue() { # name issuer cn ca?
    key "$1"
    openssl req -new -key "$work/$1.key" -subj "/CN=$3" -out "$work/$1.csr"
    printf '%s\n' "$4" >"$work/$1.ext"
    openssl x509 -req -in "$work/$1.csr" -CA "$2.crt" -CAkey "$work/$2.key" -CAcreateserial \
        -CAserial "$work/serial" -days $days -extfile "$work/$1.ext" -out "$1.crt" 2>/dev/null
}
ca root "Kelp Fixture Root"
issue inter root "Kelp Fixture Intermediate" "basicConstraints=critical,CA:TRUE
keyUsage=critical,keyCertSign,cRLSign"
issue leaf inter leaf.test "subjectAltName=DNS:leaf.test"
ca impostor "Kelp Fixture Root"
ca filler1 "Kelp Fixture Filler One"
ca filler2 "Kelp Fixture Filler Two"
openssl x509 -in root.crt -outform DER -out der.crt
