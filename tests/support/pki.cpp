#include "support/pki.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

namespace {

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertFree {
    void operator()(X509* cert) const { X509_free(cert); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using Cert = std::unique_ptr<X509, CertFree>;

constexpr long kDay = 24 * 3600;
const char kTestSans[] = "DNS:localhost,IP:127.0.0.1,IP:127.0.0.2,IP:127.0.0.3";

struct Profile {
    std::string commonName;
    bool isCa = false;
    std::string sans;            // empty: no subjectAltName
    std::string extendedUsage;   // empty: no EKU extension
    long notBeforeDays = -1;
    long notAfterDays = 365;
};

struct Issued {
    Key key;
    Cert cert;
};

void addExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
    if (ext == nullptr) throw std::runtime_error("bad extension " + value);
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

void addExtensions(X509* cert, X509* issuer, const Profile& profile) {
    addExtension(cert, issuer, NID_basic_constraints, profile.isCa ? "critical,CA:TRUE" : "CA:FALSE");
    addExtension(cert, issuer, NID_key_usage,
                 profile.isCa ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature,keyEncipherment");
    addExtension(cert, issuer, NID_subject_key_identifier, "hash");
    addExtension(cert, issuer, NID_authority_key_identifier, "keyid:always");
    if (!profile.sans.empty()) addExtension(cert, issuer, NID_subject_alt_name, profile.sans);
    if (!profile.extendedUsage.empty()) addExtension(cert, issuer, NID_ext_key_usage, profile.extendedUsage);
}

// Issues a certificate for a new key; self-signed when `issuer` is null.
Issued issue(const Profile& profile, const Issued* issuer) {
    static long serial = 1;
    Issued made{Key(EVP_EC_gen("P-256")), Cert(X509_new())};
    X509* cert = made.cert.get();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial++);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(profile.commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(cert, issuer ? X509_get_subject_name(issuer->cert.get()) : name);
    X509_gmtime_adj(X509_getm_notBefore(cert), profile.notBeforeDays * kDay);
    X509_gmtime_adj(X509_getm_notAfter(cert), profile.notAfterDays * kDay);
    X509_set_pubkey(cert, made.key.get());
    X509* issuerCert = issuer ? issuer->cert.get() : cert;
    addExtensions(cert, issuerCert, profile);
    X509_sign(cert, issuer ? issuer->key.get() : made.key.get(), EVP_sha256());
    return made;
}

void writePem(const std::string& base, const Issued& issued) {
    FILE* certFile = std::fopen((base + ".pem").c_str(), "w");
    FILE* keyFile = std::fopen((base + ".key").c_str(), "w");
    if (certFile == nullptr || keyFile == nullptr) throw std::runtime_error("cannot write " + base);
    PEM_write_X509(certFile, issued.cert.get());
    PEM_write_PrivateKey(keyFile, issued.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    std::fclose(certFile);
    std::fclose(keyFile);
}

Profile server(const std::string& cn, const std::string& eku, const std::string& sans = kTestSans) {
    Profile profile;
    profile.commonName = cn;
    profile.sans = sans;
    profile.extendedUsage = eku;
    return profile;
}

Profile authority(const std::string& cn) {
    Profile profile;
    profile.commonName = cn;
    profile.isCa = true;
    profile.notAfterDays = 3650;
    return profile;
}

void generate(const std::string& dir) {
    Issued ca = issue(authority("webclient test root CA"), nullptr);
    writePem(dir + "/ca", ca);
    writePem(dir + "/server", issue(server("webclient test server", "serverAuth"), &ca));
    writePem(dir + "/server_clientauth", issue(server("client auth only", "clientAuth"), &ca));
    writePem(dir + "/server_sgc", issue(server("server gated crypto", "msSGC,nsSGC"), &ca));
    writePem(dir + "/server_noeku", issue(server("no extended key usage", ""), &ca));
    writePem(dir + "/server_wronghost",
             issue(server("wrong host", "serverAuth", "DNS:wrong.example,IP:10.255.255.1"), &ca));
    Profile expired = server("expired", "serverAuth");
    expired.notBeforeDays = -30;
    expired.notAfterDays = -1;
    writePem(dir + "/server_expired", issue(expired, &ca));
    Profile notYet = server("not yet valid", "serverAuth");
    notYet.notBeforeDays = 30;
    notYet.notAfterDays = 60;
    writePem(dir + "/server_notyet", issue(notYet, &ca));
    Issued other = issue(authority("unrelated test root CA"), nullptr);
    writePem(dir + "/other_ca", other);
    writePem(dir + "/server_untrusted", issue(server("untrusted", "serverAuth"), &other));
    Issued signingRoot = issue(authority("webclient test bundle signing root"), nullptr);
    writePem(dir + "/signing_root", signingRoot);
    writePem(dir + "/signer", issue(server("bundle signer", "codeSigning", ""), &signingRoot));
    writePem(dir + "/foreign_signer", issue(server("foreign signer", "codeSigning", ""), nullptr));
}

}  // namespace

TestPki& TestPki::instance() {
    static TestPki pki;
    return pki;
}

TestPki::TestPki() {
    char name[] = "/tmp/webclient-pki-XXXXXX";
    if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = name;
    generate(dir_);
}

TestPki::~TestPki() {
    const std::string command = "rm -rf '" + dir_ + "'";
    (void)!std::system(command.c_str());
}
