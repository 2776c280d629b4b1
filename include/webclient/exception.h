// Exception types of libwebclient.
//
// Inside the library, set-up failures travel as WebException: a libcurl
// option that cannot be set, transfer information that cannot be read, a
// failing multi-handle call. Transfer results themselves are values, never
// exceptions.
#pragma once

#include <exception>
#include <string>

#include "webclient/export.h"

class WEBCLIENT_API Exception : public std::exception {
public:
    // Takes ownership of `inner` (may be null); it is deleted with this object.
    Exception(std::string const& message, Exception* inner);
    // Copies deep-copy the inner chain (as plain Exception objects), so a
    // copied exception never shares or double-frees its cause.
    Exception(Exception const& other);
    Exception(Exception&& other) noexcept;
    Exception& operator=(Exception const& other);
    Exception& operator=(Exception&& other) noexcept;
    ~Exception() override;

    const char* what() const noexcept override;

    // The exception that caused this one, or null. Owned by this object.
    Exception const* getInner() const noexcept { return inner; }

protected:
    std::string message;
    Exception* inner;
};

class WEBCLIENT_API WebException : public Exception {
public:
    WebException(std::string const& message, Exception* inner);
    WebException(WebException const&) = default;
    WebException(WebException&&) noexcept = default;
    WebException& operator=(WebException const&) = default;
    WebException& operator=(WebException&&) noexcept = default;
    ~WebException() override;
};
