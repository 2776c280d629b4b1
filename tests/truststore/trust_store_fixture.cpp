#include "truststore/trust_store_fixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/pki.h"
#include "support/test_helpers.h"
#include "truststore/truststore_internal.h"
#include "truststore/truststore_paths.h"

namespace fs = std::filesystem;

namespace {

// The test server serves chosen bytes only under /served/.
const char kBundlePath[] = "/served/security/pki/trs/ulmar.p7b";

std::string tool(const std::string& name) { return std::string(WEBCLIENT_SOURCE_DIR) + "/tools/" + name; }

void writeFile(const std::string& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

void makeBundle(const std::string& signer, const std::string& out) {
    const TestPki& pki = TestPki::instance();
    const std::string command = "sh " + tool("make_trust_bundle.sh") + " " + pki.file(signer + ".pem") + " " +
                                pki.file(signer + ".key") + " " + pki.file("ca.pem") + " " + out;
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

void layOutTree() {
    fs::remove_all(truststore_paths::kRoot);
    for (const char* path : {truststore_paths::kCaBundlePem, truststore_paths::kDownloadedBundle,
                             truststore_paths::kShippedBundle, truststore_paths::kRootSigningCert,
                             truststore_paths::kExtractScript})
        fs::create_directories(fs::path(path).parent_path());
    fs::copy_file(tool("extract_ca_bundle.sh"), truststore_paths::kExtractScript);
    fs::permissions(truststore_paths::kExtractScript, fs::perms::owner_all | fs::perms::group_read |
                                                          fs::perms::group_exec | fs::perms::others_read |
                                                          fs::perms::others_exec);
    fs::copy_file(TestPki::instance().file("signing_root.pem"), truststore_paths::kRootSigningCert);
}

void resetManager(CaBundleManager& manager) {
    pthread_mutex_lock(&manager.status_mutex);
    manager.bundle_status = 0;
    pthread_mutex_unlock(&manager.status_mutex);
    manager.use_default_bundle = true;
    manager.ca_file.clear();
    manager.ca_handler = nullptr;
    manager.download_url = truststore_paths::kDownloadUrl;
}

}  // namespace

int threadId() { return static_cast<int>(gettid()); }

void TrustStoreTest::SetUpTestSuite() {
    const TestPki& pki = TestPki::instance();
    if (fs::exists(pki.file("good.p7b"))) return;
    makeBundle("signer", pki.file("good.p7b"));
    makeBundle("foreign_signer", pki.file("foreign.p7b"));
    std::string tampered = readWholeFile(pki.file("good.p7b"));
    const size_t content = tampered.find("BEGIN CERTIFICATE");
    ASSERT_NE(content, std::string::npos);
    tampered[content + 100] ^= 0x01;
    writeFile(pki.file("tampered.p7b"), tampered);
}

void TrustStoreTest::SetUp() {
    layOutTree();
    resetManager(store());
}

void TrustStoreTest::TearDown() {
    resetManager(store());
    if (closedPortSocket_ >= 0) close(closedPortSocket_);
}

int TrustStoreTest::status() {
    CaBundleManager& manager = store();
    pthread_mutex_lock(&manager.status_mutex);
    const int value = manager.bundle_status;
    pthread_mutex_unlock(&manager.status_mutex);
    return value;
}

bool TrustStoreTest::eventually(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string TrustStoreTest::bundle(const std::string& which) {
    return readWholeFile(TestPki::instance().file(which + ".p7b"));
}

std::string TrustStoreTest::caPem() { return readWholeFile(TestPki::instance().file("ca.pem")); }

void TrustStoreTest::serveBundle(const std::string& body, int status) {
    server_.serveBytes(kBundlePath, body, status);
    store().download_url = server_.url("127.0.0.1", kBundlePath);
}

void TrustStoreTest::makeDownloadFail() {
    // Bound but not listening: connections are refused, and the port stays
    // ours until the test ends.
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

int TrustStoreTest::downloadsSeen() const {
    int count = 0;
    for (const RecordedRequest& request : server_.requests()) count += (request.path == kBundlePath) ? 1 : 0;
    return count;
}

void TrustStoreTest::shipBundle(const std::string& body) { writeFile(truststore_paths::kShippedBundle, body); }

void TrustStoreTest::installScript(const std::string& body) {
    fs::remove(truststore_paths::kExtractScript);
    writeFile(truststore_paths::kExtractScript, "#!/bin/sh\n" + body + "\n");
    fs::permissions(truststore_paths::kExtractScript, fs::perms::owner_all);
}
