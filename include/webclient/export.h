// Symbol visibility for libwebclient. The library is built with hidden
// visibility; exactly the classes and functions marked WEBCLIENT_API are
// exported from libwebclient.so.
#pragma once

#define WEBCLIENT_API __attribute__((visibility("default")))
