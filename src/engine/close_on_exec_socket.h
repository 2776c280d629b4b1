// Sockets opened for our transfers are close-on-exec. A program the host
// starts while a connection is open would otherwise inherit it and keep it
// open after the library closed its end, so the device never saw the close.
// Made so atomically: a fork on another thread between socket() and fcntl()
// would leak it all the same.
#pragma once

#include <curl/curl.h>
#include <sys/socket.h>

#include "util/standard_descriptors.h"

namespace webclient {

inline curl_socket_t openCloseOnExecSocket(void*, curlsocktype, struct curl_sockaddr* address) noexcept {
    occupyFreeStandardDescriptors();  // a connection on 2 would carry the log to the device
    const int fd = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    return fd < 0 ? CURL_SOCKET_BAD : fd;
}

inline CURLcode useCloseOnExecSockets(CURL* handle) {
    return curl_easy_setopt(handle, CURLOPT_OPENSOCKETFUNCTION, &openCloseOnExecSocket);
}

}  // namespace webclient
