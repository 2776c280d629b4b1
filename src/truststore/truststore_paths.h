// The trust store's build-time settings: its fixed paths and two time
// limits. They are exact in the shipped library; the test build compiles
// truststore_paths.cpp with WEBCLIENT_TRUSTSTORE_ROOT set to a directory
// under the build tree, which is prepended to every path, and with short
// limits so that a hung script or a stuck wait is tested quickly.
#pragma once

namespace truststore_paths {

extern const char* const kCertDir;            // ".../sync/certs/"
extern const char* const kCaBundlePem;        // ".../sync/certs/ca-bundle.pem"
extern const char* const kDownloadedBundle;   // "/tmp/kelmora/probe/ulmar.p7b"
extern const char* const kShippedBundle;      // "/etc/kelmora/probe/ulmar.p7b"
extern const char* const kRootSigningCert;    // ".../RootBundleSigningCertificate.cer"
extern const char* const kExtractScript;      // ".../bin/extract_ca_bundle.sh"
extern const char* const kDownloadUrl;        // where the trust bundle is fetched
extern const char* const kRoot;               // the prefix ("" when shipped)
// How long the extraction script may run before it is killed and reaped and
// the extraction counts as failed (120 s when shipped). A hung script would
// otherwise keep the CA file's write lock, and with it every secure request
// of the host, for ever.
extern const long kExtractScriptTimeoutMs;
// How long a refresh made by a thread that keeps a request alive waits for
// the CA file's readers to go (30 s when shipped). That thread holds its
// request's handle mutex, and a reader may be waiting for exactly that
// mutex: without a limit both would wait for ever.
extern const long kCaFileWaitMs;

}  // namespace truststore_paths
