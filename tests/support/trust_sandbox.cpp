#include "support/trust_sandbox.h"

#include <pthread.h>

#include <cstdlib>
#include <fstream>

#include "support/pki.h"
#include "support/test_helpers.h"
#include "truststore/truststore_paths.h"

namespace {

const char kBundlePath[] = "/served/ulmar.p7b";

void run(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

}  // namespace

void writeFileCreatingDirs(const std::string& path, const std::string& bytes) {
    run("mkdir -p '" + path.substr(0, path.rfind('/')) + "'");
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

TrustStoreSandbox::TrustStoreSandbox() {
    run(std::string("rm -rf '") + truststore_paths::kRoot + "'");
    writeFileCreatingDirs(truststore_paths::kRootSigningCert,
                          readWholeFile(TestPki::instance().file("signing_root.pem")));
    writeFileCreatingDirs(truststore_paths::kExtractScript,
                          readWholeFile(std::string(WEBCLIENT_SOURCE_DIR) + "/tools/extract_ca_bundle.sh"));
    run(std::string("chmod +x '") + truststore_paths::kExtractScript + "'");
    run(std::string("mkdir -p '") + truststore_paths::kCertDir + "' '" + truststore_paths::kRoot +
        "/tmp/kelmora/probe'");
    resetStore();
    store().download_url = bundleServer_.url("127.0.0.1", kBundlePath);
}

TrustStoreSandbox::~TrustStoreSandbox() {
    resetStore();
    store().download_url = truststore_paths::kDownloadUrl;
    (void)!std::system((std::string("rm -rf '") + truststore_paths::kRoot + "'").c_str());
}

void TrustStoreSandbox::resetStore() {
    CaBundleManager& manager = store();
    pthread_mutex_lock(&manager.status_mutex);
    manager.bundle_status = 0;
    pthread_mutex_unlock(&manager.status_mutex);
    manager.ca_file.clear();
    manager.use_default_bundle = true;
    manager.ca_handler = nullptr;
}

std::string TrustStoreSandbox::makeBundle(const std::vector<std::string>& pemFiles, const std::string& signer) {
    TempFile cas, out;
    std::string concatenated;
    for (const auto& pem : pemFiles) concatenated += readWholeFile(pem);
    writeFileCreatingDirs(cas.path(), concatenated);
    const TestPki& pki = TestPki::instance();
    run("sh '" + std::string(WEBCLIENT_SOURCE_DIR) + "/tools/make_trust_bundle.sh' '" +
        pki.file(signer + ".pem") + "' '" + pki.file(signer + ".key") + "' '" + cas.path() + "' '" +
        out.path() + "'");
    return readWholeFile(out.path());
}

void TrustStoreSandbox::serveBundle(const std::string& bytes, int status) {
    bundleServer_.serveBytes(kBundlePath, bytes, status);
}

void TrustStoreSandbox::installShippedBundle(const std::string& bytes) {
    writeFileCreatingDirs(truststore_paths::kShippedBundle, bytes);
}

int TrustStoreSandbox::status() {
    CaBundleManager& manager = store();
    pthread_mutex_lock(&manager.status_mutex);
    const int value = manager.bundle_status;
    pthread_mutex_unlock(&manager.status_mutex);
    return value;
}
