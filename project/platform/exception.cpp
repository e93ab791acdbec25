#include "qz/platform/exception.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include "qz/platform/handle.h"
#include "qz/platform/memalloc.h"

namespace kiv {

Exception::~Exception() = default;

Exception* Exception::clone() const { return new Exception(*this); }
Exception* InvalidHandleException::clone() const { return new InvalidHandleException(*this); }
Exception* Utf8Error::clone() const { return new Utf8Error(*this); }

const char* Exception::what() const noexcept {
    try {
        m_what = getMessageText().toUtf8();
        return m_what.c_str();
    } catch (...) {
        // Assigning a fallback to m_what could itself throw; a literal cannot.
        return "(message could not be rendered)";
    }
}

namespace detail {
void throwInvalidHandle(const std::type_info& pointerType) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(
        abi::__cxa_demangle(pointerType.name(), nullptr, nullptr, &status), std::free);
    const char* name = (status == 0 && demangled) ? demangled.get() : pointerType.name();
    throw InvalidHandleException(String::fromUtf8(name));
}
}  // namespace detail

}  // namespace kiv
