// Builds throw-away certificates and signed trust bundles with OpenSSL,
// for the test suite and the `webclient demo`. Not for production keys.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

namespace pki_builder {

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertFree {
    void operator()(X509* cert) const { X509_free(cert); }
};

struct Issued {
    std::unique_ptr<EVP_PKEY, KeyFree> key;
    std::unique_ptr<X509, CertFree> cert;
};

struct Profile {
    std::string commonName;
    bool isCa = false;
    std::string sans;           // e.g. "DNS:localhost,IP:127.0.0.2"; empty: none
    // DNS names written byte for byte (they may hold a NUL, which the text
    // form above cannot express); used instead of `sans` when not empty.
    std::vector<std::string> rawDnsNames;
    std::string extendedUsage;  // e.g. "serverAuth"; empty: no EKU extension
    long notBeforeDays = -1;
    long notAfterDays = 365;
};

Profile authority(const std::string& commonName);
Profile leaf(const std::string& commonName, const std::string& extendedUsage, const std::string& sans);

// A new P-256 key and a certificate for it; self-signed when `issuer` is null.
// Throws std::runtime_error on failure.
Issued issue(const Profile& profile, const Issued* issuer);

// Writes base.pem (certificate) and base.key (private key).
void writePem(const std::string& base, const Issued& issued);
std::string certificatePem(const Issued& issued);

// A trust bundle: DER CMS SignedData whose content is `contentPem`, signed
// by `signer` with its certificate embedded.
std::string signBundle(const Issued& signer, const std::string& contentPem);

}  // namespace pki_builder
