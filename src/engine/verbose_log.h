// libcurl's verbose output, routed through the host logger (debug level,
// module 18) instead of straight to standard error, with secrets masked:
// the values of header lines whose names name a credential (Authorization,
// Cookie, X-Auth-Token, X-API-Key, ...), and what get_printable_url masks.
#pragma once

#include <curl/curl.h>

#include <string>

// A CURLOPT_DEBUGFUNCTION callback. Data and TLS payloads are not logged.
int logVerboseLine(CURL* handle, curl_infotype type, char* data, size_t size, void* unused);

// One verbose line with its secrets masked.
std::string maskVerboseLine(const std::string& line);
