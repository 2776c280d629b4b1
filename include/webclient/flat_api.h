// The exported functions with plain parameter types. Host modules link
// against these (C++-mangled) symbols, so the parameter types are fixed.
//
// Strings: a null user, password, cookie or data is the empty string, except
// webClientPatch's data. A null url in the body-returning functions other
// than webClientUploadByPost (and webClientPatch's null data) throws
// std::logic_error, which is not caught: these functions turn only a
// WebException into an error line and a null (or 0) result.
// Header arrays end at their first null entry; a null array sends none.
// Returned char* are Strdup copies owned by the caller: release them with
// the deallocator that matches the host's Strdup (free for the stand-in).
#pragma once

#include <string>
#include <vector>

#include "webclient/export.h"

struct json_object;

WEBCLIENT_API char* webClientGet(const char* url, const char* user, const char* password,
                                 const char** headers, bool useSsl);
// responseHeaders must not be null; *responseHeaders is written (a copy of
// the response header text) only when a body is returned.
WEBCLIENT_API char* webClientGet_ex(const char* url, const char* user, const char* password,
                                    const char** headers, char** responseHeaders, bool useSsl);
WEBCLIENT_API char* webClientGet_ex2(const char* url, const char* user, const char* password,
                                     const char* cookie, const char** headers, int* responseCode,
                                     bool useSsl);
WEBCLIENT_API char* webClientPut(const char* url, const char* user, const char* password,
                                 const char* data, const char** headers, bool useSsl);
WEBCLIENT_API char* webClientPost(const char* url, const char* user, const char* password,
                                  const char* data, const char** headers, bool useSsl);
WEBCLIENT_API char* webClientDelete(const char* url, const char* user, const char* password,
                                    const char** headers, bool useSsl);
WEBCLIENT_API char* webClientPatch(const char* url, const char* user, const char* password,
                                   const char* data, const char** headers, bool useSsl);
// Null also for an empty body, and for a null url, fieldName or filePath.
WEBCLIENT_API char* webClientUploadByPost(const char* url, const char* user, const char* password,
                                          const char** headers, const char* fieldName,
                                          const char* filePath, int* responseCode, bool useSsl);
// HTTP status of the last attempt; -1 for bad arguments or an unopenable
// file; 0 after a WebException.
WEBCLIENT_API int webClientDownload_ex(const char* url, const char* user, const char* password,
                                       const char** headers, const char* filePath,
                                       std::string& error, bool useSsl);
// 0 for a completed transfer and for a failed one alike; -1 for bad
// arguments or an unopenable file.
WEBCLIENT_API int webClientDownload(const char* url, const char* user, const char* password,
                                    const char** headers, const char* filePath, bool useSsl);

WEBCLIENT_API std::vector<std::string> header_array_to_vector(const char** headers);

// Starts the transfer backend (costs 6 s); call once before any request.
WEBCLIENT_API void initCurlBackEnd();
// Stops it for good: requests made afterwards do nothing.
WEBCLIENT_API void stopCurlBackEnd();
WEBCLIENT_API int WebClientModuleInit(json_object* config);
WEBCLIENT_API int WebClientModuleDeinit(json_object* config);
