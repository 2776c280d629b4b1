// A test PKI generated once per process with OpenSSL into a temporary
// directory (removed at exit). File names, each NAME.pem with NAME.key:
//   ca                     test root CA
//   server                 serverAuth; SAN DNS:localhost, IP:127.0.0.1-3
//   server_clientauth      EKU clientAuth only (same SANs)
//   server_sgc             EKU only msSGC and nsSGC (same SANs)
//   server_noeku           no EKU extension (same SANs)
//   server_wronghost       SAN DNS:wrong.example, IP:10.255.255.1 only
//   server_expired         validity entirely in the past
//   server_notyet          validity entirely in the future
//   server_nulsan          DNS SANs "localhost\0.evil.example" and
//                          "127.0.0.2\0.evil.example" only
//   server_chain           issued by an intermediate CA (no EKU), chain served
//   server_chain_clientauth  the same under an intermediate with EKU clientAuth
//   other_ca, server_untrusted   a second root and a server it issued
//   signing_root, signer   bundle-signing root and a signer it issued
//   foreign_signer         self-signed signer, not under signing_root
#pragma once

#include <string>

#include "support/server_util.h"

class TestPki {
public:
    static TestPki& instance();

    const std::string& dir() const { return dir_; }
    std::string file(const std::string& name) const { return dir_ + "/" + name; }
    // Certificate and key of one of the server certificates above.
    TlsFiles tls(const std::string& base) const { return {file(base + ".pem"), file(base + ".key")}; }

private:
    TestPki();
    ~TestPki();
    std::string dir_;
};
