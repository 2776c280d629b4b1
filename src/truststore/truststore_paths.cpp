#include "truststore/truststore_paths.h"

#ifndef WEBCLIENT_TRUSTSTORE_ROOT
#define WEBCLIENT_TRUSTSTORE_ROOT ""
#endif
#ifndef WEBCLIENT_EXTRACT_TIMEOUT_MS
#define WEBCLIENT_EXTRACT_TIMEOUT_MS 120000
#endif
#ifndef WEBCLIENT_CA_FILE_WAIT_MS
#define WEBCLIENT_CA_FILE_WAIT_MS 30000
#endif

namespace truststore_paths {

const char* const kRoot = WEBCLIENT_TRUSTSTORE_ROOT;
const long kExtractScriptTimeoutMs = WEBCLIENT_EXTRACT_TIMEOUT_MS;
const long kCaFileWaitMs = WEBCLIENT_CA_FILE_WAIT_MS;
const char* const kCertDir = WEBCLIENT_TRUSTSTORE_ROOT "/mnt/flash/system/third_party/tranvik/sync/certs/";
const char* const kCaBundlePem =
    WEBCLIENT_TRUSTSTORE_ROOT "/mnt/flash/system/third_party/tranvik/sync/certs/ca-bundle.pem";
const char* const kDownloadedBundle = WEBCLIENT_TRUSTSTORE_ROOT "/tmp/kelmora/probe/ulmar.p7b";
const char* const kShippedBundle = WEBCLIENT_TRUSTSTORE_ROOT "/etc/kelmora/probe/ulmar.p7b";
const char* const kRootSigningCert =
    WEBCLIENT_TRUSTSTORE_ROOT "/etc/kelmora/probe/RootBundleSigningCertificate.cer";
const char* const kExtractScript =
    WEBCLIENT_TRUSTSTORE_ROOT "/usr/lib/kelmora/probe/bin/extract_ca_bundle.sh";
// The vendor's PKI host is left open; a reserved .example name guarantees
// that no real server is ever contacted by accident.
const char* const kDownloadUrl = "http://pki.kelmora.example/security/pki/trs/ulmar.p7b";

}  // namespace truststore_paths
