// Symbol visibility for libwebclient. The library is built with hidden
// visibility; the classes and functions marked WEBCLIENT_API are its
// interface. The dynamic symbol table also holds weak copies of standard
// library templates the library instantiated (as any C++ shared library
// built this way does); they are not part of the interface.
#pragma once

#define WEBCLIENT_API __attribute__((visibility("default")))
