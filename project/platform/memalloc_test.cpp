#include "qz/platform/memalloc.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <stdexcept>

#include "qz/platform/handle.h"

namespace kiv {
namespace {

using memalloc::MemoryAllocatorGateway;

struct Tracked : RefCountedBase {
    char payload[40] = {};
};

struct ThrowsOnConstruction : RefCountedBase {
    ThrowsOnConstruction() { throw std::runtime_error("constructor failed"); }
    char payload[24] = {};
};

constexpr const char* kFile = "project/platform/memalloc_test_alloc";

TEST(TrackingAllocator, TaggedNewCountsALiveBlockForItsFileAndLine) {
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(kFile, 12).blocks, 0);
    Handle<Tracked> h(new (KIV_MEMTAG(kFile, 12)) Tracked());
    const auto counts = MemoryAllocatorGateway::liveCounts(kFile, 12);
    EXPECT_EQ(counts.blocks, 1);
    EXPECT_EQ(counts.bytes, static_cast<std::int64_t>(sizeof(Tracked)));
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(kFile, 13).blocks, 0);
    h.reset();
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(kFile, 12).blocks, 0);
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(kFile, 12).bytes, 0);
}

TEST(TrackingAllocator, CountsRiseAndFallWithEachBlock) {
    static constexpr const char* file = "project/platform/memalloc_test_rise";
    Handle<Tracked> a(new (KIV_MEMTAG(file, 20)) Tracked());
    Handle<Tracked> b(new (KIV_MEMTAG(file, 20)) Tracked());
    Handle<Tracked> c(new (KIV_MEMTAG(file, 21)) Tracked());
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(file, 20).blocks, 2);
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(file, 21).blocks, 1);
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(file).blocks, 3);  // any line
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(file).bytes, static_cast<std::int64_t>(3 * sizeof(Tracked)));
    a.reset();
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(file, 20).blocks, 1);
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(file).blocks, 2);
    b.reset();
    c.reset();
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(file).blocks, 0);
}

TEST(TrackingAllocator, TagCountsTotalAllocations) {
    memalloc::Tag& tag = KIV_MEMTAG("project/platform/memalloc_test_total", 1);
    const auto before = tag.totalBlocks.load();
    for (int i = 0; i < 3; ++i) Handle<Tracked> h(new (tag) Tracked());
    EXPECT_EQ(tag.totalBlocks.load(), before + 3);
    EXPECT_EQ(tag.liveBlocks.load(), 0);
    EXPECT_STREQ(tag.file, "project/platform/memalloc_test_total");
    EXPECT_EQ(tag.line, 1);
}

TEST(TrackingAllocator, ThrowingConstructorFreesTheBlockWithTheSameTag) {
    static constexpr const char* file = "project/platform/memalloc_test_throw";
    memalloc::Tag& tag = KIV_MEMTAG(file, 30);
    const auto before = tag.totalBlocks.load();
    EXPECT_THROW(new (tag) ThrowsOnConstruction(), std::runtime_error);
    EXPECT_EQ(tag.totalBlocks.load(), before + 1);  // it was allocated ...
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(file, 30).blocks, 0);  // ... and freed
    EXPECT_EQ(MemoryAllocatorGateway::liveCounts(file, 30).bytes, 0);
}

TEST(TrackingAllocator, PlainNewUsesTheUntaggedTag) {
    memalloc::Tag& untagged = MemoryAllocatorGateway::untagged();
    const auto before = untagged.liveBlocks.load();
    Handle<Tracked> h(new Tracked());
    EXPECT_EQ(untagged.liveBlocks.load(), before + 1);
    h.reset();
    EXPECT_EQ(untagged.liveBlocks.load(), before);
}

TEST(TrackingAllocator, LiveTotalCoversEveryTag) {
    const auto before = MemoryAllocatorGateway::liveTotal();
    Handle<Tracked> a(new (KIV_MEMTAG("project/platform/memalloc_test_total_a", 1)) Tracked());
    Handle<Tracked> b(new Tracked());
    const auto during = MemoryAllocatorGateway::liveTotal();
    EXPECT_EQ(during.blocks, before.blocks + 2);
    EXPECT_EQ(during.bytes, before.bytes + static_cast<std::int64_t>(2 * sizeof(Tracked)));
    a.reset();
    b.reset();
    const auto after = MemoryAllocatorGateway::liveTotal();
    EXPECT_EQ(after.blocks, before.blocks);
    EXPECT_EQ(after.bytes, before.bytes);
}

TEST(TrackingAllocator, BlocksAreSixteenByteAlignedAndKnowTheirSize) {
    memalloc::Tag& tag = KIV_MEMTAG("project/platform/memalloc_test_raw", 1);
    for (std::size_t n : {std::size_t{0}, std::size_t{1}, std::size_t{17}, std::size_t{4096}}) {
        void* p = MemoryAllocatorGateway::allocate(n, tag);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
        EXPECT_EQ(MemoryAllocatorGateway::blockSize(p), n);
        EXPECT_EQ(tag.liveBlocks.load(), 1);
        EXPECT_EQ(tag.liveBytes.load(), static_cast<std::int64_t>(n));
        MemoryAllocatorGateway::deallocate(p);
        EXPECT_EQ(tag.liveBlocks.load(), 0);
    }
}

TEST(TrackingAllocator, FreeingNullIsIgnored) {
    const auto before = MemoryAllocatorGateway::liveTotal();
    MemoryAllocatorGateway::deallocate(nullptr);
    EXPECT_EQ(MemoryAllocatorGateway::blockSize(nullptr), 0u);
    EXPECT_EQ(MemoryAllocatorGateway::liveTotal().blocks, before.blocks);
}

TEST(TrackingAllocator, ImpossibleSizeThrowsBadAlloc) {
    memalloc::Tag& tag = KIV_MEMTAG("project/platform/memalloc_test_huge", 1);
    const auto before = tag.totalBlocks.load();
    EXPECT_THROW(MemoryAllocatorGateway::allocate(std::numeric_limits<std::size_t>::max() - 4, tag), std::bad_alloc);
    EXPECT_EQ(tag.liveBlocks.load(), 0);
    EXPECT_EQ(tag.totalBlocks.load(), before);
}

TEST(TrackingAllocator, UnknownFileHasNoLiveBlocks) {
    const auto c = MemoryAllocatorGateway::liveCounts("no/such/file");
    EXPECT_EQ(c.blocks, 0);
    EXPECT_EQ(c.bytes, 0);
}

}  // namespace
}  // namespace kiv
