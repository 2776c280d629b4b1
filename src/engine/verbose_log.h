// libcurl's verbose output, routed through the host logger (debug level,
// module 18) instead of straight to standard error, with secrets masked:
// the values of request header lines other than a few plain ones (Host,
// Accept, Content-Type, ...), of response header lines whose names name a
// credential (Set-Cookie, X-Auth-Token, ...), and what get_printable_url
// masks. Control bytes show as \xNN.
#pragma once

#include <curl/curl.h>

#include <string>

// A CURLOPT_DEBUGFUNCTION callback. Data and TLS payloads are not logged.
int logVerboseLine(CURL* handle, curl_infotype type, char* data, size_t size, void* unused);

// One verbose line with its secrets masked; `requestHeader` for a header
// line of a request (not its request line); the bracketed HTTP/2 forms
// count as such anyway.
std::string maskVerboseLine(const std::string& line, bool requestHeader);
