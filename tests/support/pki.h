// A test PKI generated once per process with OpenSSL into a temporary
// directory (removed at exit): NAME.pem and NAME.key for each name that
// pki.cpp's generate() writes. Server certificates name DNS:localhost and
// IP:127.0.0.1-3 unless their name says otherwise.
#pragma once

#include <sys/types.h>

#include <string>

#include "support/server_util.h"

class TestPki {
public:
    static TestPki& instance();

    std::string file(const std::string& name) const { return dir_ + "/" + name; }
    TlsFiles tls(const std::string& base) const { return {file(base + ".pem"), file(base + ".key")}; }

private:
    TestPki();
    ~TestPki();
    std::string dir_;
    pid_t owner_;
};
