#include "webclient/exception.h"

#include <utility>

namespace {

Exception* copyInner(Exception const* inner) {
    return inner == nullptr ? nullptr : new Exception(*inner);
}

}  // namespace

Exception::Exception(std::string const& message, Exception* inner)
    : message(message), inner(inner) {}

Exception::Exception(Exception const& other)
    : std::exception(other), message(other.message), inner(copyInner(other.inner)) {}

Exception::Exception(Exception&& other) noexcept
    : std::exception(other), message(std::move(other.message)), inner(other.inner) {
    other.inner = nullptr;
}

Exception& Exception::operator=(Exception const& other) {
    if (this != &other) {
        Exception* copied = copyInner(other.inner);
        delete inner;
        inner = copied;
        message = other.message;
    }
    return *this;
}

Exception& Exception::operator=(Exception&& other) noexcept {
    if (this != &other) {
        delete inner;
        inner = other.inner;
        other.inner = nullptr;
        message = std::move(other.message);
    }
    return *this;
}

Exception::~Exception() { delete inner; }

const char* Exception::what() const noexcept { return message.c_str(); }

WebException::WebException(std::string const& message, Exception* inner)
    : Exception(message, inner) {}

WebException::~WebException() = default;
