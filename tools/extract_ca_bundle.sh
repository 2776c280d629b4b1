#!/bin/sh
# extract_ca_bundle.sh ROOT_SIGNING_CERT BUNDLE OUTPUT_PEM
#
# Verifies a signed trust bundle (DER-encoded CMS/PKCS#7 SignedData whose
# content is a PEM CA bundle) against ROOT_SIGNING_CERT alone and writes the
# contained PEM bundle to OUTPUT_PEM. Exits 0 only when the signature chains
# to ROOT_SIGNING_CERT and the content holds at least one certificate; then,
# and only then, OUTPUT_PEM is replaced (atomically, by a rename within its
# directory). Quiet on success; the reason for a failure goes to stderr.
#
# libwebclient runs this with its standard input on a pipe that stays open
# until the script has ended: nothing here may read standard input.

set -u
# The host's PATH may lack the system directories (dirname, mktemp, openssl).
PATH=/usr/sbin:/usr/bin:/sbin:/bin
export PATH

fail() {
    printf 'extract_ca_bundle.sh: %s\n' "$*" >&2
    exit 1
}

[ $# -eq 3 ] || fail "usage: extract_ca_bundle.sh ROOT_SIGNING_CERT BUNDLE OUTPUT_PEM"
root=$1
bundle=$2
output=$3

[ -r "$root" ] || fail "cannot read root signing certificate $root"
[ -r "$bundle" ] || fail "cannot read trust bundle $bundle"

outdir=$(dirname -- "$output")
# The clean-up is in place before the temporary file exists: a signal that
# came between the two would leave the file in the CA directory for good.
tmp=
trap '[ -z "$tmp" ] || rm -f "$tmp"' EXIT
trap 'exit 1' HUP INT PIPE TERM
tmp=$(mktemp "$outdir/.ca-bundle.XXXXXX" </dev/null) || fail "cannot create a temporary file in $outdir"

# Only ROOT_SIGNING_CERT is trusted: the default CA file, directory and
# store are switched off, so a bundle signed by an ordinary web CA fails.
# Certificates embedded in the bundle serve as untrusted intermediates.
# OpenSSL 1.1 has no default store (nor the option to switch it off).
no_store=-no-CAstore
case $(openssl version 2>/dev/null) in "OpenSSL 1."*) no_store= ;; esac
if ! messages=$(openssl cms -verify -inform DER -binary -in "$bundle" -out "$tmp" \
        -CAfile "$root" -no-CApath $no_store -purpose any </dev/null 2>&1); then
    printf '%s\n' "$messages" >&2
    fail "signature verification of $bundle failed"
fi

if ! messages=$(openssl x509 -noout -in "$tmp" </dev/null 2>&1); then
    printf '%s\n' "$messages" >&2
    fail "the signed content of $bundle holds no certificate"
fi

chmod 0644 "$tmp" || fail "cannot set the mode of $tmp"
mv -fT "$tmp" "$output" || fail "cannot move the CA bundle into $output"
trap - EXIT
exit 0
