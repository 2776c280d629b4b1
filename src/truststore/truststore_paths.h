// The trust store's fixed paths. They are exact in the shipped library; the
// test build compiles truststore_paths.cpp with WEBCLIENT_TRUSTSTORE_ROOT set
// to a directory under the build tree, which is prepended to every path.
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

}  // namespace truststore_paths
