#include "qz/platform/handle.h"

#include <gtest/gtest.h>

#include <utility>

#include "qz/platform/exception.h"

// Test types outside the unnamed namespace, so their names are fixed text.
namespace kiv::handletest {

struct Widget : RefCountedBase {
    explicit Widget(int* destroyed = nullptr) : m_pDestroyed(destroyed) {}
    ~Widget() override {
        if (m_pDestroyed) ++*m_pDestroyed;
    }
    int value = 7;
    int* m_pDestroyed;
};

struct SpecialWidget : Widget {
    using Widget::Widget;
    int special = 42;
};

struct OtherThing : RefCountedBase {};

}  // namespace kiv::handletest

namespace kiv {
namespace {

using handletest::OtherThing;
using handletest::SpecialWidget;
using handletest::Widget;

struct Foo : RefCountedBase {};

TEST(Handle, CountStartsAtZero) {
    int destroyed = 0;
    auto* w = new Widget(&destroyed);
    EXPECT_EQ(w->getRefCount(), 0);
    Handle<Widget> h(w);  // takes ownership, so the object is freed
    EXPECT_EQ(destroyed, 0);
}

TEST(Handle, FirstHandleMakesCountOne) {
    Handle<Widget> h(new Widget());
    EXPECT_EQ(h->getRefCount(), 1);
}

TEST(Handle, CopyRaisesCountAndDestructionLowersIt) {
    Handle<Widget> a(new Widget());
    {
        Handle<Widget> b(a);
        EXPECT_EQ(a->getRefCount(), 2);
        EXPECT_EQ(a.get(), b.get());
        EXPECT_TRUE(a == b);
    }
    EXPECT_EQ(a->getRefCount(), 1);
}

TEST(Handle, MoveTransfersWithoutChangingCount) {
    int destroyed = 0;
    Handle<Widget> a(new Widget(&destroyed));
    Widget* raw = a.get();
    Handle<Widget> b(std::move(a));
    EXPECT_TRUE(a.isNull());
    EXPECT_EQ(b.get(), raw);
    EXPECT_EQ(raw->getRefCount(), 1);

    Handle<Widget> c;
    c = std::move(b);
    EXPECT_TRUE(b.isNull());
    EXPECT_EQ(c.get(), raw);
    EXPECT_EQ(raw->getRefCount(), 1);
    EXPECT_EQ(destroyed, 0);
}

TEST(Handle, MoveAssignmentReleasesThePreviousObject) {
    int destroyedA = 0, destroyedB = 0;
    Handle<Widget> a(new Widget(&destroyedA));
    Handle<Widget> b(new Widget(&destroyedB));
    a = std::move(b);
    EXPECT_EQ(destroyedA, 1);
    EXPECT_EQ(destroyedB, 0);
    EXPECT_EQ(a->getRefCount(), 1);
}

TEST(Handle, SelfMoveAssignmentKeepsTheObject) {
    int destroyed = 0;
    Handle<Widget> a(new Widget(&destroyed));
    Handle<Widget>& alias = a;
    a = std::move(alias);
    EXPECT_FALSE(a.isNull());
    EXPECT_EQ(a->getRefCount(), 1);
    EXPECT_EQ(destroyed, 0);
}

TEST(Handle, ReassignmentReleasesOldAndTakesNew) {
    int destroyedA = 0, destroyedB = 0;
    Handle<Widget> h(new Widget(&destroyedA));
    Handle<Widget> other(new Widget(&destroyedB));
    h = other;
    EXPECT_EQ(destroyedA, 1);
    EXPECT_EQ(other->getRefCount(), 2);
    h = new Widget(&destroyedA);
    EXPECT_EQ(other->getRefCount(), 1);
    EXPECT_EQ(destroyedA, 1);
}

TEST(Handle, SelfAssignmentKeepsTheObject) {
    int destroyed = 0;
    Handle<Widget> h(new Widget(&destroyed));
    Handle<Widget>& alias = h;
    h = alias;
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(h->getRefCount(), 1);
    h.reset(h.get());
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(h->getRefCount(), 1);
}

TEST(Handle, ResetReleasesAndEmpties) {
    int destroyed = 0;
    Handle<Widget> h(new Widget(&destroyed));
    h.reset();
    EXPECT_TRUE(h.isNull());
    EXPECT_FALSE(static_cast<bool>(h));
    EXPECT_EQ(destroyed, 1);
    h.reset();  // resetting an empty handle does nothing
    EXPECT_TRUE(h.isNull());
}

TEST(Handle, ObjectIsDeletedOnlyWhenTheLastHandleGoes) {
    int destroyed = 0;
    auto* a = new Handle<Widget>(new Widget(&destroyed));
    auto* b = new Handle<Widget>(*a);
    Handle<Widget> c(*b);
    delete a;
    EXPECT_EQ(destroyed, 0);
    delete b;
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(c->getRefCount(), 1);
    c = nullptr;
    EXPECT_EQ(destroyed, 1);
}

TEST(Handle, DeletionGoesThroughTheTrackingAllocator) {
    const auto before = memalloc::MemoryAllocatorGateway::untagged().liveBlocks.load();
    {
        Handle<Widget> h(new Widget());
        EXPECT_EQ(memalloc::MemoryAllocatorGateway::untagged().liveBlocks.load(), before + 1);
    }
    EXPECT_EQ(memalloc::MemoryAllocatorGateway::untagged().liveBlocks.load(), before);
}

TEST(Handle, DereferencingAnEmptyHandleThrowsNamingThePointerType) {
    Handle<Widget> h;
    try {
        (void)h->value;
        FAIL() << "no exception";
    } catch (const InvalidHandleException& e) {
        EXPECT_EQ(e.getMessageText(), String(L"kiv::handletest::Widget*"));
        EXPECT_STREQ(e.what(), "kiv::handletest::Widget*");
    }
    EXPECT_THROW((void)*h, InvalidHandleException);
}

TEST(Handle, EmptyHandleExceptionNamesTypesInAnUnnamedNamespace) {
    Handle<Foo> h;
    try {
        (void)*h;
        FAIL() << "no exception";
    } catch (const InvalidHandleException& e) {
        EXPECT_EQ(e.getMessageText(), String(L"kiv::(anonymous namespace)::Foo*"));
    }
}

TEST(Handle, EmptyHandleExceptionIsAHostException) {
    Handle<Widget> h;
    EXPECT_THROW((void)h->value, Exception);
}

TEST(Handle, GetOnAnEmptyHandleDoesNotThrow) {
    Handle<Widget> h(nullptr);
    EXPECT_EQ(h.get(), nullptr);
    EXPECT_TRUE(h.isNull());
}

TEST(Handle, ConvertsToAHandleOfABaseClass) {
    Handle<SpecialWidget> special(new SpecialWidget());
    Handle<Widget> base(special);
    EXPECT_EQ(special->getRefCount(), 2);
    EXPECT_EQ(base->value, 7);
}

TEST(Handle, DynamicCastToTheRightTypeSharesTheObject) {
    Handle<Widget> base(new SpecialWidget());
    Handle<SpecialWidget> special = handle_dynamic_cast<SpecialWidget>(base);
    ASSERT_FALSE(special.isNull());
    EXPECT_EQ(special->special, 42);
    EXPECT_EQ(base->getRefCount(), 2);
}

TEST(Handle, DynamicCastToTheWrongTypeIsEmpty) {
    Handle<Widget> base(new Widget());
    EXPECT_TRUE(handle_dynamic_cast<SpecialWidget>(base).isNull());
    EXPECT_EQ(base->getRefCount(), 1);
    Handle<Widget> empty;
    EXPECT_TRUE(handle_dynamic_cast<SpecialWidget>(empty).isNull());
}

TEST(Handle, CopyOfAnObjectStartsWithNoHolders) {
    Handle<Widget> a(new Widget());
    Widget copy(*a);
    EXPECT_EQ(copy.getRefCount(), 0);
    EXPECT_EQ(a->getRefCount(), 1);
}

TEST(NonOwningPtr, PointsWithoutOwning) {
    int destroyed = 0;
    Handle<Widget> h(new Widget(&destroyed));
    {
        NonOwningPtr<Widget> p(h.get());
        EXPECT_EQ(p.get(), h.get());
        EXPECT_EQ(p->value, 7);
        EXPECT_EQ((*p).value, 7);
        EXPECT_TRUE(static_cast<bool>(p));
        EXPECT_EQ(h->getRefCount(), 1);
    }
    EXPECT_EQ(destroyed, 0);
    NonOwningPtr<OtherThing> none;
    EXPECT_TRUE(none.isNull());
    EXPECT_FALSE(static_cast<bool>(NonOwningPtr<Widget>(nullptr)));
}

}  // namespace
}  // namespace kiv
