#include "support/pki.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "pki_builder.h"

namespace {

using namespace pki_builder;

Profile server(const std::string& cn, const std::string& eku) {
    return leaf(cn, eku, "DNS:localhost,IP:127.0.0.1,IP:127.0.0.2,IP:127.0.0.3");
}

// A server certificate issued by `intermediate`, served with it as its chain.
void writeChained(const std::string& base, const Issued& intermediate) {
    writePem(base, issue(server("chained server", "serverAuth"), &intermediate));
    std::ofstream(base + ".pem", std::ios::app) << certificatePem(intermediate);
}

void generate(const std::string& dir) {
    Issued ca = issue(authority("webclient test root CA"), nullptr);
    writePem(dir + "/ca", ca);
    writePem(dir + "/server", issue(server("webclient test server", "serverAuth"), &ca));
    writePem(dir + "/server_sgc", issue(server("server gated crypto", "msSGC,nsSGC"), &ca));
    writePem(dir + "/server_noeku", issue(server("no extended key usage", ""), &ca));
    writePem(dir + "/server_wronghost",
             issue(leaf("wrong host", "serverAuth", "DNS:wrong.example,IP:10.255.255.1"), &ca));
    Profile expired = server("expired", "serverAuth");
    expired.notBeforeDays = -30;
    expired.notAfterDays = -1;
    writePem(dir + "/server_expired", issue(expired, &ca));
    Profile nulNames = leaf("NUL inside the names", "serverAuth", "");
    nulNames.rawDnsNames = {std::string("localhost\0.evil.example", 23), std::string("127.0.0.2\0.evil.example", 23)};
    writePem(dir + "/server_nulsan", issue(nulNames, &ca));
    writeChained(dir + "/server_chain", issue(authority("intermediate CA"), &ca));
    Profile clientAuthCa = authority("client-auth intermediate CA");
    clientAuthCa.extendedUsage = "clientAuth";
    writeChained(dir + "/server_chain_clientauth", issue(clientAuthCa, &ca));
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
    owner_ = getpid();
    generate(dir_);
}

// A forked child that exits runs this too: only the maker removes the files.
TestPki::~TestPki() {
    if (getpid() == owner_) (void)!std::system(("rm -rf '" + dir_ + "'").c_str());
}
