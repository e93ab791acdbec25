// Tracking allocator.
//
// `memalloc::MemoryAllocatorGateway` hands out heap blocks and keeps, per
// allocation tag (source file, line), the number of live blocks and live
// bytes. Tests read those counts to prove that destroying an object graph
// frees every block it allocated. Each block carries a 16-byte header in
// front of the object holding its size and its tag, so deallocation needs
// neither.
//
// Thread safety: all functions may be called from any thread; counters are
// atomic. A Tag must have static storage duration (use KIV_MEMTAG).
#pragma once

#include "qz/platform/export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <vector>

namespace kiv::memalloc {

struct KIV_API Tag {
    Tag(const char* file, int line) noexcept;
    Tag(const Tag&) = delete;
    Tag& operator=(const Tag&) = delete;

    const char* const file;
    const int line;
    std::atomic<std::int64_t> liveBlocks{0};
    std::atomic<std::int64_t> liveBytes{0};
    std::atomic<std::int64_t> totalBlocks{0};
    Tag* next = nullptr;  // registry chain, written once at construction
};

struct KIV_API Counts {
    std::int64_t blocks = 0;
    std::int64_t bytes = 0;
};

class KIV_API MemoryAllocatorGateway {
public:
    // Allocates `n` bytes tagged with `tag`; throws std::bad_alloc on failure.
    static void* allocate(std::size_t n, Tag& tag);
    // Frees a block returned by allocate (null is ignored).
    static void deallocate(void* p) noexcept;
    // The size the block was allocated with.
    static std::size_t blockSize(const void* p) noexcept;

    // The tag used by plain `new` on classes allocated through the gateway.
    static Tag& untagged() noexcept;

    // Live counts of every tag with this file and line (line < 0: any line).
    static Counts liveCounts(const std::string& file, int line = -1) noexcept;
    // Live counts over all tags.
    static Counts liveTotal() noexcept;
};

}  // namespace kiv::memalloc

// A tag with static storage for the given source file and line.
#define KIV_MEMTAG(file, line)                                 \
    ([]() -> ::kiv::memalloc::Tag& {                           \
        static ::kiv::memalloc::Tag kivMemTag_((file), (line)); \
        return kivMemTag_;                                     \
    }())

namespace kiv {

// Allocation policy: class-level new/delete routed through the gateway.
// `new (tag) T(...)` tags the block; a throwing constructor frees it with the
// same tag through the matching placement delete.
struct KIV_API MemAllocNewdel {
    static void* operator new(std::size_t n) { return memalloc::MemoryAllocatorGateway::allocate(n, memalloc::MemoryAllocatorGateway::untagged()); }
    static void* operator new(std::size_t n, memalloc::Tag& tag) { return memalloc::MemoryAllocatorGateway::allocate(n, tag); }
    static void operator delete(void* p) noexcept { memalloc::MemoryAllocatorGateway::deallocate(p); }
    static void operator delete(void* p, memalloc::Tag&) noexcept { memalloc::MemoryAllocatorGateway::deallocate(p); }
};

}  // namespace kiv
