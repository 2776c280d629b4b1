#include "support/trust_sandbox.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/pki.h"
#include "support/test_helpers.h"
#include "truststore/truststore_paths.h"
#include "util/lock_guard.h"

namespace fs = std::filesystem;

namespace {

const char kBundlePath[] = "/served/ulmar.p7b";

void resetStore(const std::string& downloadUrl) {
    CaBundleManager& manager = TrustStoreSandbox::store();
    utilities::lock::lock_guard hold(&manager.status_mutex);
    manager.bundle_status = 0;
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

TrustStoreSandbox::TrustStoreSandbox() {
    fs::remove_all(truststore_paths::kRoot);
    writeFileCreatingDirs(truststore_paths::kRootSigningCert,
                          readWholeFile(TestPki::instance().file("signing_root.pem")));
    installScript(readWholeFile(std::string(WEBCLIENT_SOURCE_DIR) + "/tools/extract_ca_bundle.sh"));
    fs::create_directories(truststore_paths::kCertDir);
    fs::create_directories(fs::path(truststore_paths::kDownloadedBundle).parent_path());
    resetStore(server_.url("127.0.0.1", kBundlePath));
}

TrustStoreSandbox::~TrustStoreSandbox() {
    resetStore(truststore_paths::kDownloadUrl);
    std::error_code ignored;
    fs::remove_all(truststore_paths::kRoot, ignored);
}

int TrustStoreSandbox::status() {
    utilities::lock::lock_guard hold(&store().status_mutex);
    return store().bundle_status;
}

bool TrustStoreSandbox::caFileHeld() {
    if (pthread_rwlock_trywrlock(&store().file_lock) == EBUSY) return true;
    pthread_rwlock_unlock(&store().file_lock);
    return false;
}

std::string TrustStoreSandbox::makeBundle(const std::vector<std::string>& pemFiles, const std::string& signer) {
    std::string concatenated;
    for (const auto& pem : pemFiles) concatenated += readWholeFile(pem);
    TempFile cas(concatenated), out;
    const TestPki& pki = TestPki::instance();
    const std::string command = "sh '" + std::string(WEBCLIENT_SOURCE_DIR) + "/tools/make_trust_bundle.sh' '" +
                                pki.file(signer + ".pem") + "' '" + pki.file(signer + ".key") + "' '" +
                                cas.path() + "' '" + out.path() + "'";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
    return readWholeFile(out.path());
}

void TrustStoreSandbox::serveBundle(const std::string& bytes, int status) {
    server_.serveBytes(kBundlePath, bytes, status);
    // Called from inside CA handlers while a refresh reads the URL: written
    // only when failDownloads moved it.
    const std::string url = server_.url("127.0.0.1", kBundlePath);
    if (store().download_url != url) store().download_url = url;
}

void TrustStoreSandbox::installScript(const std::string& text) {
    fs::remove(truststore_paths::kExtractScript);
    writeFileCreatingDirs(truststore_paths::kExtractScript, text);
    (void)chmod(truststore_paths::kExtractScript, 0700);
}
