#include "engine/handle_renewal.h"

#include <initializer_list>

namespace webclient {

bool reusedHandlesKeepStaleHeader() {
    static const bool affected = curl_version_info(CURLVERSION_NOW)->version_num < 0x080100;
    return affected;
}

void cleanupEasyHandle(CURL* handle) noexcept {
    if (handle == nullptr) return;
    (void)curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_cleanup(handle);
}

CURL* handleForNextTransfer(CURL* handle, bool replace) {
    if (handle == nullptr) return curl_easy_init();
    if (CURL* fresh = replace ? curl_easy_init() : nullptr) {
        cleanupEasyHandle(handle);
        return fresh;
    }
    curl_easy_reset(handle);
    return handle;
}

CURLSH* makeConnectionShare() {
    CURLSH* share = curl_share_init();
    if (share == nullptr) return nullptr;
    for (curl_lock_data data : {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_DNS}) {
        if (curl_share_setopt(share, CURLSHOPT_SHARE, data) != CURLSHE_OK) {
            curl_share_cleanup(share);
            return nullptr;
        }
    }
    return share;
}

}  // namespace webclient
