#!/bin/sh
# make_trust_bundle.sh SIGNER_CERT SIGNER_KEY CA_BUNDLE_PEM OUT_P7B [EXTRA_CHAIN_PEM]
#
# Produces a trust bundle that libwebclient's extract_ca_bundle.sh accepts:
# a DER-encoded CMS/PKCS#7 SignedData with the PEM CA bundle as its
# encapsulated content, signed with SIGNER_KEY. SIGNER_CERT is embedded,
# and so are the certificates of EXTRA_CHAIN_PEM (the intermediates between
# the signer and the root signing certificate, if any), so that a device
# needs only the root signing certificate to verify the bundle.
#
# Quiet on success; the reason for a failure goes to stderr. OUT_P7B is
# replaced only when signing succeeded.

set -u

fail() {
    printf 'make_trust_bundle.sh: %s\n' "$*" >&2
    exit 1
}

[ $# -eq 4 ] || [ $# -eq 5 ] ||
    fail "usage: make_trust_bundle.sh SIGNER_CERT SIGNER_KEY CA_BUNDLE_PEM OUT_P7B [EXTRA_CHAIN_PEM]"
signer=$1
key=$2
cas=$3
out=$4
chain=${5:-}

for file in "$signer" "$key" "$cas" ${chain:+"$chain"}; do
    [ -r "$file" ] || fail "cannot read $file"
done

# A bundle without a certificate would be rejected on every device.
if ! messages=$(openssl x509 -noout -in "$cas" </dev/null 2>&1); then
    printf '%s\n' "$messages" >&2
    fail "$cas holds no PEM certificate"
fi

tmp=$(mktemp "$(dirname -- "$out")/.trust-bundle.XXXXXX" </dev/null) || fail "cannot create a temporary file"
trap 'rm -f "$tmp"' EXIT
trap 'exit 1' HUP INT TERM

# -binary keeps the PEM text byte for byte (no MIME canonicalisation of line
# ends); -nodetach puts it inside the signature.
if ! messages=$(openssl cms -sign -binary -nodetach -outform DER -md sha256 \
        -in "$cas" -signer "$signer" -inkey "$key" ${chain:+-certfile "$chain"} \
        -out "$tmp" </dev/null 2>&1); then
    printf '%s\n' "$messages" >&2
    fail "signing $cas failed"
fi

chmod 0644 "$tmp" || fail "cannot set the mode of $tmp"
mv -fT "$tmp" "$out" || fail "cannot write $out"
trap - EXIT
exit 0
