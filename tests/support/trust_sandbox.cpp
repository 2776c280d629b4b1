#include "support/trust_sandbox.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/pki.h"
#include "support/test_helpers.h"
#include "truststore/truststore_paths.h"

namespace fs = std::filesystem;

namespace {

const char kBundlePath[] = "/served/ulmar.p7b";

void resetStore(const std::string& downloadUrl) {
    CaBundleManager& manager = TrustStoreSandbox::store();
    pthread_mutex_lock(&manager.status_mutex);
    manager.bundle_status = 0;
    pthread_mutex_unlock(&manager.status_mutex);
    manager.ca_file.clear();
    manager.use_default_bundle = true;
    manager.ca_handler = nullptr;
    manager.download_url = downloadUrl;
}

}  // namespace

void writeFileCreatingDirs(const std::string& path, const std::string& bytes) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

TrustStoreSandbox::TrustStoreSandbox() : bundleUrl_(bundleServer_.url("127.0.0.1", kBundlePath)) {
    fs::remove_all(truststore_paths::kRoot);
    writeFileCreatingDirs(truststore_paths::kRootSigningCert,
                          readWholeFile(TestPki::instance().file("signing_root.pem")));
    writeFileCreatingDirs(truststore_paths::kExtractScript,
                          readWholeFile(std::string(WEBCLIENT_SOURCE_DIR) + "/tools/extract_ca_bundle.sh"));
    (void)chmod(truststore_paths::kExtractScript, 0755);
    fs::create_directories(truststore_paths::kCertDir);
    fs::create_directories(fs::path(truststore_paths::kDownloadedBundle).parent_path());
    resetStore(bundleUrl_);
}

TrustStoreSandbox::~TrustStoreSandbox() {
    resetStore(truststore_paths::kDownloadUrl);
    if (closedPortSocket_ >= 0) close(closedPortSocket_);
    std::error_code ignored;
    fs::remove_all(truststore_paths::kRoot, ignored);
}

std::string TrustStoreSandbox::makeBundle(const std::vector<std::string>& pemFiles, const std::string& signer) {
    TempFile cas, out;
    std::string concatenated;
    for (const auto& pem : pemFiles) concatenated += readWholeFile(pem);
    writeFileCreatingDirs(cas.path(), concatenated);
    const TestPki& pki = TestPki::instance();
    const std::string command = "sh '" + std::string(WEBCLIENT_SOURCE_DIR) + "/tools/make_trust_bundle.sh' '" +
                                pki.file(signer + ".pem") + "' '" + pki.file(signer + ".key") + "' '" +
                                cas.path() + "' '" + out.path() + "'";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
    return readWholeFile(out.path());
}

void TrustStoreSandbox::serveBundle(const std::string& bytes, int status) {
    bundleServer_.serveBytes(kBundlePath, bytes, status);
    // Tests change the bundle from inside a CA handler, while a refresh
    // runs: the URL is written only when failDownloads moved it.
    if (store().download_url != bundleUrl_) store().download_url = bundleUrl_;
}

void TrustStoreSandbox::failDownloads() {
    // Bound but not listening: connections are refused, and the port stays
    // ours until the sandbox goes.
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (closedPortSocket_ < 0) {
        closedPortSocket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bind(closedPortSocket_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    getsockname(closedPortSocket_, reinterpret_cast<sockaddr*>(&address), &length);
    store().download_url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + kBundlePath;
}

int TrustStoreSandbox::downloadsSeen() const {
    int count = 0;
    for (const RecordedRequest& request : bundleServer_.requests()) count += (request.path == kBundlePath) ? 1 : 0;
    return count;
}

void TrustStoreSandbox::installShippedBundle(const std::string& bytes) {
    writeFileCreatingDirs(truststore_paths::kShippedBundle, bytes);
}

void TrustStoreSandbox::installScript(const std::string& body) {
    // A new file, not rewritten in place: the old one may still be running.
    fs::remove(truststore_paths::kExtractScript);
    writeFileCreatingDirs(truststore_paths::kExtractScript, "#!/bin/sh\n" + body + "\n");
    (void)chmod(truststore_paths::kExtractScript, 0700);
}

int TrustStoreSandbox::status() {
    CaBundleManager& manager = store();
    pthread_mutex_lock(&manager.status_mutex);
    const int value = manager.bundle_status;
    pthread_mutex_unlock(&manager.status_mutex);
    return value;
}
