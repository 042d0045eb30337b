#!/bin/sh
# Makes certificates for tests in the current folder, NAME.pem with NAME.key, and CHAIN.pem.
set -e
# issue NAME ISSUER DAYS EXTENSION...
issue() {
    name=$1 issuer=$2 days=$3
    shift 3
    printf '%s\n' "$@" >extensions
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$name.key" -subj "/CN=$name" -out request
    signer="-CA $issuer.pem -CAkey $issuer.key"
    [ "$name" != "$issuer" ] || signer="-signkey $name.key"
    openssl x509 -req -in request $signer -set_serial "$days" -days "$days" -extfile extensions -out "$name.pem"
}
# The root forbids what its sub-authority is called.
issue root root 9 basicConstraints=CA:true 'nameConstraints=excluded;DNS:bad'
issue authority root 8 basicConstraints=CA:true subjectAltName=DNS:bad
for name in leaf twin; do issue $name authority 7 subjectAltName=IP:127.0.0.1; done
issue stale stale 0 subjectAltName=DNS:elsewhere
cat leaf.pem authority.pem >chain.pem
cp leaf.key chain.key
