#include "qz/platform/memalloc.h"

#include <cstdlib>
#include <cstring>

namespace kiv::memalloc {

namespace {

// Every block starts with this header; the object follows, 16-byte aligned.
struct alignas(16) Header {
    std::size_t size;
    Tag* tag;
};
static_assert(sizeof(Header) == 16, "the block header keeps 16-byte alignment");

std::atomic<Tag*> g_tags{nullptr};

}  // namespace

Tag::Tag(const char* f, int l) noexcept : file(f), line(l) {
    Tag* head = g_tags.load(std::memory_order_acquire);
    do {
        next = head;
    } while (!g_tags.compare_exchange_weak(head, this, std::memory_order_acq_rel));
}

void* MemoryAllocatorGateway::allocate(std::size_t n, Tag& tag) {
    // A size so large that adding the header wraps around must fail, not
    // allocate a tiny block.
    if (n > static_cast<std::size_t>(-1) - sizeof(Header)) throw std::bad_alloc();
    void* raw = std::malloc(sizeof(Header) + n);
    if (!raw) throw std::bad_alloc();
    auto* h = static_cast<Header*>(raw);
    h->size = n;
    h->tag = &tag;
    tag.liveBlocks.fetch_add(1, std::memory_order_relaxed);
    tag.liveBytes.fetch_add(static_cast<std::int64_t>(n), std::memory_order_relaxed);
    tag.totalBlocks.fetch_add(1, std::memory_order_relaxed);
    return h + 1;
}

void MemoryAllocatorGateway::deallocate(void* p) noexcept {
    if (!p) return;
    Header* h = static_cast<Header*>(p) - 1;
    h->tag->liveBlocks.fetch_sub(1, std::memory_order_relaxed);
    h->tag->liveBytes.fetch_sub(static_cast<std::int64_t>(h->size), std::memory_order_relaxed);
    std::free(h);
}

std::size_t MemoryAllocatorGateway::blockSize(const void* p) noexcept {
    return p ? (static_cast<const Header*>(p) - 1)->size : 0;
}

Tag& MemoryAllocatorGateway::untagged() noexcept {
    static Tag t("<untagged>", 0);
    return t;
}

Counts MemoryAllocatorGateway::liveCounts(const std::string& file, int line) noexcept {
    Counts c;
    for (Tag* t = g_tags.load(std::memory_order_acquire); t; t = t->next) {
        if (file == t->file && (line < 0 || line == t->line)) {
            c.blocks += t->liveBlocks.load(std::memory_order_relaxed);
            c.bytes += t->liveBytes.load(std::memory_order_relaxed);
        }
    }
    return c;
}

Counts MemoryAllocatorGateway::liveTotal() noexcept {
    Counts c;
    for (Tag* t = g_tags.load(std::memory_order_acquire); t; t = t->next) {
        c.blocks += t->liveBlocks.load(std::memory_order_relaxed);
        c.bytes += t->liveBytes.load(std::memory_order_relaxed);
    }
    return c;
}

}  // namespace kiv::memalloc
