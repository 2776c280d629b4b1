#include "support/pki.h"

#include "pki_builder.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace {

using pki_builder::authority;
using pki_builder::Issued;
using pki_builder::issue;
using pki_builder::leaf;
using pki_builder::writePem;

const char kTestSans[] = "DNS:localhost,IP:127.0.0.1,IP:127.0.0.2,IP:127.0.0.3";

pki_builder::Profile server(const std::string& cn, const std::string& eku) { return leaf(cn, eku, kTestSans); }

pki_builder::Profile withUsage(pki_builder::Profile profile, const std::string& extendedUsage) {
    profile.extendedUsage = extendedUsage;
    return profile;
}

// A server certificate issued by `intermediate`, served with it as its chain.
void writeChained(const std::string& base, const Issued& intermediate) {
    writePem(base, issue(server("chained server", "serverAuth"), &intermediate));
    FILE* chain = std::fopen((base + ".pem").c_str(), "a");
    const std::string pem = pki_builder::certificatePem(intermediate);
    const bool ok = chain && std::fputs(pem.c_str(), chain) >= 0;
    if (chain) std::fclose(chain);
    if (!ok) throw std::runtime_error("cannot append the chain to " + base);
}

pki_builder::Profile validFor(pki_builder::Profile profile, long fromDays, long toDays) {
    profile.notBeforeDays = fromDays;
    profile.notAfterDays = toDays;
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
             issue(leaf("wrong host", "serverAuth", "DNS:wrong.example,IP:10.255.255.1"), &ca));
    writePem(dir + "/server_expired", issue(validFor(server("expired", "serverAuth"), -30, -1), &ca));
    writePem(dir + "/server_notyet", issue(validFor(server("not yet valid", "serverAuth"), 30, 60), &ca));
    pki_builder::Profile nulNames = leaf("NUL inside the names", "serverAuth", "");
    nulNames.rawDnsNames = {std::string("localhost\0.evil.example", 23), std::string("127.0.0.2\0.evil.example", 23)};
    writePem(dir + "/server_nulsan", issue(nulNames, &ca));
    writeChained(dir + "/server_chain", issue(authority("intermediate CA"), &ca));
    writeChained(dir + "/server_chain_clientauth",
                 issue(withUsage(authority("client-auth intermediate CA"), "clientAuth"), &ca));
    Issued other = issue(authority("unrelated test root CA"), nullptr);
    writePem(dir + "/other_ca", other);
    writePem(dir + "/server_untrusted", issue(server("untrusted", "serverAuth"), &other));
    Issued signingRoot = issue(authority("webclient test bundle signing root"), nullptr);
    writePem(dir + "/signing_root", signingRoot);
    writePem(dir + "/signer", issue(leaf("bundle signer", "codeSigning", ""), &signingRoot));
    writePem(dir + "/foreign_signer", issue(leaf("foreign signer", "codeSigning", ""), nullptr));
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
