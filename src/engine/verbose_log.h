// libcurl's verbose output, routed through the host logger (debug level,
// module 18) instead of straight to standard error, with secrets masked:
// the values of Authorization, Proxy-Authorization, Cookie and Set-Cookie
// header lines, and password / client_secret query values.
#pragma once

#include <curl/curl.h>

#include <string>

// A CURLOPT_DEBUGFUNCTION callback. Data and TLS payloads are not logged.
int logVerboseLine(CURL* handle, curl_infotype type, char* data, size_t size, void* unused);

// One verbose line with its secrets masked.
std::string maskVerboseLine(const std::string& line);
