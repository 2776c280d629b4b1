#include "demo_sandbox.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "truststore/truststore_paths.h"

namespace {

std::string failure(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

bool overlay(const std::string& dir, const std::string& scratch, std::string& reason) {
    const std::string upper = scratch + "/overlay" + dir + "-upper", work = scratch + "/overlay" + dir + "-work";
    if (std::system(("mkdir -p '" + upper + "' '" + work + "'").c_str()) != 0) {
        reason = "cannot create overlay directories";
        return false;
    }
    const std::string options = "lowerdir=" + dir + ",upperdir=" + upper + ",workdir=" + work;
    if (mount("overlay", dir.c_str(), "overlay", 0, options.c_str()) == 0) return true;
    reason = failure(("overlay on " + dir).c_str());
    return false;
}

bool enterPrivateNamespace(std::string& reason) {
    if (geteuid() != 0) {
        reason = "not running as root (a private mount namespace needs it)";
        return false;
    }
    if (unshare(CLONE_NEWNS) != 0) {
        reason = failure("unshare(CLONE_NEWNS)");
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        reason = failure("making mounts private");
        return false;
    }
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0 || mount("tmpfs", "/mnt", "tmpfs", 0, "mode=755") != 0) {
        reason = failure("tmpfs on /tmp or /mnt");
        return false;
    }
    return true;
}

std::string findExtractionScript() {
    char self[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string beside = length > 0 ? std::string(self, static_cast<size_t>(length)) : std::string();
    beside = beside.substr(0, beside.rfind('/') + 1) + "extract_ca_bundle.sh";
    for (const std::string& candidate : {beside, std::string(WEBCLIENT_INSTALLED_DATA_DIR) + "/extract_ca_bundle.sh",
                                         std::string(WEBCLIENT_TOOLS_SOURCE_DIR) + "/extract_ca_bundle.sh"}) {
        if (access(candidate.c_str(), R_OK) == 0) return candidate;
    }
    return std::string();
}

bool writeFile(const std::string& path, const std::string& contents, mode_t mode) {
    if (std::system(("mkdir -p '" + path.substr(0, path.rfind('/')) + "'").c_str()) != 0) return false;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    out.close();
    return out.good() && chmod(path.c_str(), mode) == 0;
}

std::string readExtractionScript() {
    const std::string script = findExtractionScript();
    if (script.empty()) return std::string();
    std::ifstream in(script, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

DemoSandbox prepareDemoSandbox() {
    DemoSandbox sandbox;
    sandbox.extractionScript = readExtractionScript();
    std::string reason;
    const bool isolated = enterPrivateNamespace(reason);
    char scratch[] = "/tmp/webclient-demo-XXXXXX";
    sandbox.scratch = mkdtemp(scratch) ? scratch : "/tmp";
    sandbox.scratchIsPrivate = isolated || sandbox.scratch == "/tmp";
    if (isolated && overlay("/etc", sandbox.scratch, reason) && overlay("/usr/lib", sandbox.scratch, reason)) {
        sandbox.trustStoreReady = true;
    } else {
        sandbox.skipReason = reason;
    }
    return sandbox;
}

bool installTrustStoreFiles(const DemoSandbox& sandbox, const std::string& signingRootPem, std::string& reason) {
    if (sandbox.extractionScript.empty()) {
        reason = "extract_ca_bundle.sh not found (or empty) beside the program or in its data directory";
        return false;
    }
    const std::string downloaded = truststore_paths::kDownloadedBundle;
    const std::string dirs = std::string("mkdir -p '") + truststore_paths::kCertDir + "' '" +
                             downloaded.substr(0, downloaded.rfind('/')) + "'";
    if (!writeFile(truststore_paths::kExtractScript, sandbox.extractionScript, 0755) ||
        !writeFile(truststore_paths::kRootSigningCert, signingRootPem, 0644) || std::system(dirs.c_str()) != 0) {
        reason = failure("installing the trust store's files");
        return false;
    }
    return true;
}

void removeDemoScratch(const DemoSandbox& sandbox) {
    if (sandbox.scratchIsPrivate) return;
    std::error_code ignored;
    std::filesystem::remove_all(sandbox.scratch, ignored);
}
