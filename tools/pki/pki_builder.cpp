#include "pki_builder.h"

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <stdexcept>

namespace pki_builder {

namespace {

constexpr long kDaySeconds = 24 * 3600;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct CmsFree {
    void operator()(CMS_ContentInfo* cms) const { CMS_ContentInfo_free(cms); }
};
using Bio = std::unique_ptr<BIO, BioFree>;

void addExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
    if (ext == nullptr) throw std::runtime_error("bad certificate extension " + value);
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

void addRawDnsNames(X509* cert, const std::vector<std::string>& names) {
    GENERAL_NAMES* list = sk_GENERAL_NAME_new_null();
    for (const std::string& name : names) {
        ASN1_IA5STRING* text = ASN1_IA5STRING_new();
        ASN1_STRING_set(text, name.data(), static_cast<int>(name.size()));
        GENERAL_NAME* entry = GENERAL_NAME_new();
        GENERAL_NAME_set0_value(entry, GEN_DNS, text);
        sk_GENERAL_NAME_push(list, entry);
    }
    const int added = X509_add1_ext_i2d(cert, NID_subject_alt_name, list, 0, X509V3_ADD_DEFAULT);
    GENERAL_NAMES_free(list);
    if (added != 1) throw std::runtime_error("cannot add raw subjectAltName");
}

void addExtensions(X509* cert, X509* issuer, const Profile& profile) {
    addExtension(cert, issuer, NID_basic_constraints, profile.isCa ? "critical,CA:TRUE" : "CA:FALSE");
    addExtension(cert, issuer, NID_key_usage,
                 profile.isCa ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature,keyEncipherment");
    addExtension(cert, issuer, NID_subject_key_identifier, "hash");
    addExtension(cert, issuer, NID_authority_key_identifier, "keyid:always");
    if (!profile.rawDnsNames.empty()) {
        addRawDnsNames(cert, profile.rawDnsNames);
    } else if (!profile.sans.empty()) {
        addExtension(cert, issuer, NID_subject_alt_name, profile.sans);
    }
    if (!profile.extendedUsage.empty()) addExtension(cert, issuer, NID_ext_key_usage, profile.extendedUsage);
}

std::string bioText(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(length));
}

}  // namespace

Profile authority(const std::string& commonName) {
    Profile profile;
    profile.commonName = commonName;
    profile.isCa = true;
    profile.notAfterDays = 3650;
    return profile;
}

Profile leaf(const std::string& commonName, const std::string& extendedUsage, const std::string& sans) {
    Profile profile;
    profile.commonName = commonName;
    profile.extendedUsage = extendedUsage;
    profile.sans = sans;
    return profile;
}

Issued issue(const Profile& profile, const Issued* issuer) {
    static long serial = 1;
    Issued made{std::unique_ptr<EVP_PKEY, KeyFree>(EVP_EC_gen("P-256")), std::unique_ptr<X509, CertFree>(X509_new())};
    X509* cert = made.cert.get();
    if (made.key == nullptr || cert == nullptr) throw std::runtime_error("out of memory making a certificate");
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial++);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(profile.commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(cert, issuer ? X509_get_subject_name(issuer->cert.get()) : name);
    X509_gmtime_adj(X509_getm_notBefore(cert), profile.notBeforeDays * kDaySeconds);
    X509_gmtime_adj(X509_getm_notAfter(cert), profile.notAfterDays * kDaySeconds);
    X509_set_pubkey(cert, made.key.get());
    addExtensions(cert, issuer ? issuer->cert.get() : cert, profile);
    if (X509_sign(cert, issuer ? issuer->key.get() : made.key.get(), EVP_sha256()) == 0) {
        throw std::runtime_error("signing " + profile.commonName + " failed");
    }
    return made;
}

std::string certificatePem(const Issued& issued) {
    Bio bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), issued.cert.get());
    return bioText(bio.get());
}

void writePem(const std::string& base, const Issued& issued) {
    FILE* certFile = std::fopen((base + ".pem").c_str(), "w");
    FILE* keyFile = std::fopen((base + ".key").c_str(), "w");
    const bool ok = certFile && keyFile && PEM_write_X509(certFile, issued.cert.get()) &&
                    PEM_write_PrivateKey(keyFile, issued.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    if (certFile) std::fclose(certFile);
    if (keyFile) std::fclose(keyFile);
    if (!ok) throw std::runtime_error("cannot write " + base);
}

std::string signBundle(const Issued& signer, const std::string& contentPem) {
    Bio content(BIO_new_mem_buf(contentPem.data(), static_cast<int>(contentPem.size())));
    std::unique_ptr<CMS_ContentInfo, CmsFree> cms(
        CMS_sign(signer.cert.get(), signer.key.get(), nullptr, content.get(), CMS_BINARY));
    Bio der(BIO_new(BIO_s_mem()));
    if (!cms || i2d_CMS_bio(der.get(), cms.get()) != 1) throw std::runtime_error("signing the bundle failed");
    return bioText(der.get());
}

}  // namespace pki_builder
