// FavoritesException: the host exception carrying a favorites return code.
// Made by FavoritesManager::errorCodeToException for hosts that turn a failed
// code into an exception. throwMe is inherited unchanged; clone copies the
// message and the code into a block of the tracking allocator.
// Thread rule: not changed after construction; readable from any thread.
#pragma once

#include "qz/platform/export.h"

#include "qz/platform/exception.h"
#include "qz/platform/memalloc.h"
#include "qz/webfavorites/favoritestypes.h"

namespace kiv {

class KIV_API FavoritesException : public Exception, public MemAllocNewdel {
public:
    using MemAllocNewdel::operator new;
    using MemAllocNewdel::operator delete;

    FavoritesException(GDVariant message, favorites::ReturnCode code) : Exception(std::move(message)), m_code(code) {}
    ~FavoritesException() override;
    Exception* clone() const override;

    favorites::ReturnCode getCode() const noexcept { return m_code; }

private:
    favorites::ReturnCode m_code;
};

}  // namespace kiv
