#include "qz/platform/exception.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

#include "qz/platform/gdvariant.h"

namespace kiv {
namespace {

// A message with a fixed text, for tests that need a Message value.
class FixedMessage : public Message {
public:
    FixedMessage(String id, String text, std::vector<GDVariant> inserts = {})
        : m_id(std::move(id)), m_text(std::move(text)), m_inserts(std::move(inserts)) {}
    const String& getId() const noexcept override { return m_id; }
    const std::vector<GDVariant>& getInserts() const noexcept override { return m_inserts; }
    String getText() const override { return m_text; }

private:
    String m_id, m_text;
    std::vector<GDVariant> m_inserts;
};

class Probe : public GDValue {};

// --- Exception -----------------------------------------------------------------

TEST(Exception, KeepsATextMessage) {
    const Exception e(String(L"catalog unavailable"));
    EXPECT_EQ(e.getMessage().kind(), GDVariant::Kind::kString);
    EXPECT_EQ(e.getMessageText(), String(L"catalog unavailable"));
}

TEST(Exception, KeepsAMessageValueAndResolvesItsText) {
    const Exception e(GDVariant(std::make_shared<const FixedMessage>(L"kmsgX", L"Resolved text")));
    ASSERT_NE(e.getMessage().getMessage(), nullptr);
    EXPECT_EQ(e.getMessage().getMessage()->getId(), String(L"kmsgX"));
    EXPECT_EQ(e.getMessageText(), String(L"Resolved text"));
}

TEST(Exception, DefaultConstructedHasBlankText) {
    const Exception e;
    EXPECT_TRUE(e.getMessage().isEmpty());
    EXPECT_STREQ(e.what(), "");
}

TEST(Exception, WhatGivesTheTextInUtf8) {
    const Exception e(String(L"caf\u00E9 \u20AC \U0001F600"));
    EXPECT_STREQ(e.what(), "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
}

TEST(Exception, WhatOfAnUnencodableTextDoesNotThrow) {
    const Exception e(String(std::wstring(1, static_cast<wchar_t>(0xD800))));
    EXPECT_STREQ(e.what(), "(message could not be rendered)");
}

TEST(Exception, CloneKeepsTheMessage) {
    const Exception e(String(L"original"));
    std::unique_ptr<Exception> copy(e.clone());
    EXPECT_EQ(copy->getMessageText(), String(L"original"));
    const Exception& copied = *copy;
    EXPECT_EQ(typeid(copied), typeid(Exception));
}

TEST(Exception, CloneKeepsTheDynamicType) {
    const InvalidHandleException ih(String(L"kiv::X*"));
    const Exception& asBase = ih;
    std::unique_ptr<Exception> c1(asBase.clone());
    EXPECT_NE(dynamic_cast<InvalidHandleException*>(c1.get()), nullptr);
    EXPECT_EQ(c1->getMessageText(), String(L"kiv::X*"));

    const Utf8Error ue(String(L"bad byte"));
    std::unique_ptr<Exception> c2(static_cast<const Exception&>(ue).clone());
    EXPECT_NE(dynamic_cast<Utf8Error*>(c2.get()), nullptr);
    EXPECT_EQ(c2->getMessageText(), String(L"bad byte"));
}

TEST(Exception, ThrowMeRethrowsWithTheDynamicType) {
    const Utf8Error ue(String(L"bad"));
    const Exception& asBase = ue;
    EXPECT_THROW(asBase.throwMe(), Utf8Error);
    const InvalidHandleException ih(String(L"p"));
    EXPECT_THROW(static_cast<const Exception&>(ih).throwMe(), InvalidHandleException);
    try {
        std::unique_ptr<Exception> c(asBase.clone());
        c->throwMe();
    } catch (const Utf8Error& e) {
        EXPECT_EQ(e.getMessageText(), String(L"bad"));
    }
}

TEST(Exception, ThrowMeOfTheBaseThrowsTheBase) {
    const Exception e(String(L"x"));
    try {
        e.throwMe();
        FAIL() << "no exception";
    } catch (const Exception& caught) {
        EXPECT_EQ(typeid(caught), typeid(Exception));
        EXPECT_EQ(caught.getMessageText(), String(L"x"));
    }
}

TEST(Exception, IsAStandardException) {
    try {
        throw Utf8Error(String(L"boom"));
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "boom");
    }
}

// --- GDVariant -----------------------------------------------------------------

TEST(GDVariant, KindFollowsTheStoredValue) {
    EXPECT_EQ(GDVariant().kind(), GDVariant::Kind::kEmpty);
    EXPECT_TRUE(GDVariant().isEmpty());
    EXPECT_EQ(GDVariant(true).kind(), GDVariant::Kind::kBool);
    EXPECT_EQ(GDVariant(5).kind(), GDVariant::Kind::kInt);
    EXPECT_EQ(GDVariant(std::int64_t{5}).kind(), GDVariant::Kind::kInt);
    EXPECT_EQ(GDVariant(2.5).kind(), GDVariant::Kind::kDouble);
    EXPECT_EQ(GDVariant(L"s").kind(), GDVariant::Kind::kString);
    EXPECT_EQ(GDVariant(String(L"s")).kind(), GDVariant::Kind::kString);
    EXPECT_EQ(GDVariant(Handle<GDValue>(new Probe())).kind(), GDVariant::Kind::kValue);
}

TEST(GDVariant, TextOfScalars) {
    EXPECT_EQ(GDVariant().toText(), String());
    EXPECT_EQ(GDVariant(true).toText(), String(L"true"));
    EXPECT_EQ(GDVariant(false).toText(), String(L"false"));
    EXPECT_EQ(GDVariant(-42).toText(), String(L"-42"));
    EXPECT_EQ(GDVariant(std::numeric_limits<std::int64_t>::min()).toText(), String(L"-9223372036854775808"));
    EXPECT_EQ(GDVariant(L"plain").toText(), String(L"plain"));
}

TEST(GDVariant, DoubleTextIsShortestRoundTrip) {
    EXPECT_EQ(GDVariant(0.1).toText(), String(L"0.1"));
    EXPECT_EQ(GDVariant(1.5).toText(), String(L"1.5"));
    EXPECT_EQ(GDVariant(2.0).toText(), String(L"2"));
    EXPECT_EQ(GDVariant(std::nan("")).toText(), String(L"nan"));
    EXPECT_EQ(GDVariant(std::numeric_limits<double>::infinity()).toText(), String(L"inf"));
    EXPECT_EQ(GDVariant(-std::numeric_limits<double>::infinity()).toText(), String(L"-inf"));
}

TEST(GDVariant, MessageTextIsResolved) {
    GDVariant v(std::make_shared<const FixedMessage>(L"id", L"the text"));
    EXPECT_EQ(v.toText(), String(L"the text"));
}

TEST(GDVariant, NullMessageRendersBlank) {
    GDVariant v(std::shared_ptr<const Message>{});
    EXPECT_EQ(v.kind(), GDVariant::Kind::kMessage);
    EXPECT_EQ(v.getMessage(), nullptr);
    EXPECT_EQ(v.toText(), String());
}

TEST(GDVariant, EqualityComparesKindAndContent) {
    EXPECT_EQ(GDVariant(1), GDVariant(1));
    EXPECT_FALSE(GDVariant(1) == GDVariant(2));
    EXPECT_FALSE(GDVariant(1) == GDVariant(1.0));  // different kinds
    EXPECT_EQ(GDVariant(L"a"), GDVariant(String(L"a")));
    EXPECT_EQ(GDVariant(), GDVariant());
    EXPECT_FALSE(GDVariant() == GDVariant(false));
}

TEST(GDVariant, MessagesCompareByIdentifierAndInserts) {
    GDVariant a(std::make_shared<const FixedMessage>(L"id", L"one", std::vector<GDVariant>{GDVariant(1)}));
    GDVariant b(std::make_shared<const FixedMessage>(L"id", L"two", std::vector<GDVariant>{GDVariant(1)}));
    GDVariant c(std::make_shared<const FixedMessage>(L"id", L"one", std::vector<GDVariant>{GDVariant(2)}));
    GDVariant d(std::make_shared<const FixedMessage>(L"other", L"one", std::vector<GDVariant>{GDVariant(1)}));
    EXPECT_EQ(a, b);
    EXPECT_FALSE(a == c);
    EXPECT_FALSE(a == d);
    EXPECT_FALSE(a == GDVariant(std::shared_ptr<const Message>{}));
}

TEST(GDVariant, GenericValuesCompareByIdentity) {
    Handle<GDValue> p(new Probe());
    GDVariant a(p), b(p), c(Handle<GDValue>(new Probe()));
    EXPECT_EQ(a, b);
    EXPECT_FALSE(a == c);
    EXPECT_EQ(a.getValue(), p.get());
    EXPECT_EQ(p->getRefCount(), 3);
}

TEST(GDVariant, AccessorOfTheWrongKindThrows) {
    EXPECT_THROW(GDVariant(1).getString(), std::bad_variant_access);
    EXPECT_EQ(GDVariant(1).getMessage(), nullptr);
    EXPECT_EQ(GDVariant(1).getValue(), nullptr);
}

TEST(GDVariant, GenericValueResolvesToItself) {
    Handle<GDValue> p(new Probe());
    EXPECT_EQ(p->resolveReferences(), p.get());
}

}  // namespace
}  // namespace kiv
