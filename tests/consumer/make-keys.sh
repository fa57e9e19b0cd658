#!/usr/bin/env bash
# Makes, in folder $1, a CA (ca.pem) and an index signer below it
# (signer.key, signer.pem), as a publisher would hold them.
set -euo pipefail
cd "$1"
openssl req -x509 -newkey ed25519 -nodes -keyout ca.key -out ca.pem -subj /CN=CA -days 2
openssl genpkey -algorithm ED25519 -out signer.key
openssl req -x509 -key signer.key -CA ca.pem -CAkey ca.key -days 2 -subj /CN=Publisher \
  -out signer.pem
