// Unit tests of the server's pieces that need no network: the table from
// codes to HTTP statuses, the error shape, query strings, Basic credentials,
// cookies, sessions, remembered credentials and the sign-in slow-down.
#include <gtest/gtest.h>
#include <simdjson.h>

#include <thread>

#include "accesslog.h"
#include "auth.h"
#include "errors.h"
#include "routes.h"

namespace kiv::server {
namespace {

TEST(ErrorTableTest, EveryFavoritesCodeHasItsStatus) {
    const struct {
        favorites::ReturnCode code;
        int status;
    } table[] = {
        {favorites::kErrorItemAlreadyExists, 409}, {favorites::kInvalidItem, 400},
        {favorites::kErrorFavoritesOutOfSync, 409}, {favorites::kErrorItemCannotHaveChild, 400},
        {favorites::kErrorItemNotFound, 404},      {favorites::kErrorItemDoesNotExitsInCatalog, 404},
        {favorites::kErrorInvalidFavoritesPath, 400}, {favorites::kErrorFavoritesCannotBeSaved, 500},
        {favorites::kErrorInvalidFavoritesJson, 400},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(favorites::returnCodeName(row.code));
        EXPECT_EQ(httpStatusFor(row.code), row.status);
    }
}

TEST(ErrorTableTest, CatalogCodesMapToTheirStatusesAndTheRestTo500) {
    const struct {
        catalog::ReturnCode code;
        int status;
    } table[] = {
        {catalog::kErrorAccessDenied, 403},          {catalog::kErrorLinkTargetAccessDenied, 403},
        {catalog::kErrorPrivilegeDenied, 403},       {catalog::kErrorPrivilegeValidationFailed, 403},
        {catalog::kErrorPathNotFound, 404},          {catalog::kErrorLinkTargetPathNotFound, 404},
        {catalog::kErrorPathInvalid, 400},           {catalog::kErrorItemNameInvalid, 400},
        {catalog::kErrorFolderExpected, 400},        {catalog::kErrorObjectExpected, 400},
        {catalog::kErrorLocked, 503},                {catalog::kErrorIO, 500},
        {catalog::kErrorCircularLink, 500},          {catalog::kErrorOther, 500},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(catalog::returnCodeName(row.code));
        EXPECT_EQ(httpStatusFor(row.code), row.status);
    }
}

simdjson::dom::element parse(simdjson::dom::parser& parser, const std::string& text) {
    return parser.parse(text).value();
}

TEST(ErrorShapeTest, AFavoritesErrorCarriesTheLibrarysMessage) {
    const HttpResponse r = favoritesErrorResponse(favorites::kErrorItemAlreadyExists, "/shared/x");
    EXPECT_EQ(r.status, 409);
    simdjson::dom::parser p;
    const auto e = parse(p, r.body)["error"];
    EXPECT_EQ(std::string_view(e["source"]), "favorites");
    EXPECT_EQ(int64_t(e["code"]), 0);
    EXPECT_EQ(std::string_view(e["name"]), "kErrorItemAlreadyExists");
    EXPECT_EQ(std::string_view(e["message"]), "The favorite '/shared/x' already exists.");
}

TEST(ErrorShapeTest, ACatalogErrorNamesItsPathAndAServerErrorItsStatus) {
    simdjson::dom::parser p;
    const HttpResponse c = catalogErrorResponse(catalog::kErrorAccessDenied, "/shared/HR");
    const auto ce = parse(p, c.body)["error"];
    EXPECT_EQ(c.status, 403);
    EXPECT_EQ(std::string_view(ce["source"]), "catalog");
    EXPECT_EQ(std::string_view(ce["path"]), "/shared/HR");
    simdjson::dom::parser q;
    const HttpResponse s = serverErrorResponse(413, "payloadTooLarge", "too \"big\"");
    const auto se = parse(q, s.body)["error"];
    EXPECT_EQ(int64_t(se["code"]), 413);
    EXPECT_EQ(std::string_view(se["message"]), "too \"big\"");
}

TEST(TimestampTest, MicrosecondsAreWrittenInUtcWithTheDigitsAsked) {
    EXPECT_EQ(utcTimestamp(1764000000123456, 6), "2025-11-24T16:00:00.123456Z");
    EXPECT_EQ(utcTimestamp(1764000000123456, 3), "2025-11-24T16:00:00.123Z");
    EXPECT_EQ(utcTimestamp(0, 6), "1970-01-01T00:00:00.000000Z");
    EXPECT_EQ(utcTimestamp(-1, 6), "1969-12-31T23:59:59.999999Z");
}

TEST(QueryTest, ParametersArePercentDecodedWithPlusAsBlank) {
    const Query q("catalogPath=%2Fshared%2FSales%20Q1&category=Month+end&everywhere&x=%C3%A9");
    EXPECT_EQ(q.get("catalogPath"), "/shared/Sales Q1");
    EXPECT_EQ(q.get("category"), "Month end");
    EXPECT_EQ(q.get("everywhere"), "");
    EXPECT_EQ(q.get("x"), "\xC3\xA9");
    EXPECT_EQ(q.get("missing"), std::nullopt);
    EXPECT_EQ(q.getOr("missing", "d"), "d");
}

TEST(QueryTest, MalformedPercentEncodingIsABadRequest) {
    for (const char* raw : {"a=%", "a=%2", "a=%zz", "%G1=b"}) {
        SCOPED_TRACE(raw);
        try {
            Query q(raw);
            FAIL() << "accepted";
        } catch (const ApiError& e) {
            EXPECT_EQ(e.status(), 400);
        }
    }
    EXPECT_EQ(percentDecode("%41%62"), "Ab");
}

TEST(BasicCredentialsTest, AUserAndPasswordDecodeAndAPasswordMayHoldColons) {
    auto c = parseBasic("Basic YWxpY2U6ZGVtbw==");  // alice:demo
    ASSERT_TRUE(c);
    EXPECT_EQ(c->user, "alice");
    EXPECT_EQ(c->password, "demo");
    c = parseBasic("basic   Ym9iOmE6Yjpj  ");  // bob:a:b:c
    ASSERT_TRUE(c);
    EXPECT_EQ(c->user, "bob");
    EXPECT_EQ(c->password, "a:b:c");
}

TEST(BasicCredentialsTest, OtherSchemesAndBadBase64AreRefused) {
    EXPECT_FALSE(parseBasic("Bearer abc"));
    EXPECT_FALSE(parseBasic("Basic"));
    EXPECT_FALSE(parseBasic("Basic !!!"));
    EXPECT_FALSE(parseBasic("Basic YWxpY2U="));  // "alice": no colon
}

TEST(CookieTest, TheNamedCookieIsFoundAmongOthers) {
    EXPECT_EQ(cookieValue("a=1; kiv_session=abc; b=2", "kiv_session"), "abc");
    EXPECT_EQ(cookieValue("kiv_session=abc", "kiv_session"), "abc");
    EXPECT_EQ(cookieValue("xkiv_session=abc", "kiv_session"), "");
    EXPECT_EQ(cookieValue("", "kiv_session"), "");
}

TEST(SessionsTest, ASessionHasARandom256BitIdAndTokenAndEnds) {
    Sessions sessions(60);
    Session s;
    const std::string id = sessions.start(Identity{"alice", false}, &s);
    EXPECT_EQ(id.size(), 64u);
    EXPECT_EQ(s.csrfToken.size(), 64u);
    EXPECT_NE(id, s.csrfToken);
    EXPECT_NE(sessions.start(Identity{"alice", false}), id);
    ASSERT_TRUE(sessions.find(id));
    EXPECT_EQ(sessions.find(id)->identity.user, "alice");
    sessions.end(id);
    EXPECT_FALSE(sessions.find(id));
}

TEST(SessionsTest, AnExpiredSessionIsNotFound) {
    Sessions sessions(0.05);
    const std::string id = sessions.start(Identity{"alice", false});
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    EXPECT_FALSE(sessions.find(id));
}

TEST(CredentialCacheTest, OnlyTheSameNameAndPasswordAreRemembered) {
    CredentialCache cache(60);
    cache.remember({"alice", "demo"}, Identity{"alice", true});
    ASSERT_TRUE(cache.find({"alice", "demo"}));
    EXPECT_TRUE(cache.find({"alice", "demo"})->administrator);
    EXPECT_FALSE(cache.find({"alice", "demo2"}));
    EXPECT_FALSE(cache.find({"alic", "edemo"}));
    CredentialCache never(0);
    never.remember({"alice", "demo"}, Identity{"alice", false});
    EXPECT_FALSE(never.find({"alice", "demo"}));
}

TEST(SigninThrottleTest, FailuresPerNameOrAddressSlowDownUntilTheWindowPasses) {
    SigninThrottle throttle(3, 0.2);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(throttle.retryAfterSeconds("alice", "10.0.0.1"), 0);
        throttle.recordFailure("alice", "10.0.0.1");
    }
    EXPECT_GT(throttle.retryAfterSeconds("alice", "10.0.0.9"), 0);  // the name
    EXPECT_GT(throttle.retryAfterSeconds("bob", "10.0.0.1"), 0);    // the address
    EXPECT_EQ(throttle.retryAfterSeconds("bob", "10.0.0.9"), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_EQ(throttle.retryAfterSeconds("alice", "10.0.0.1"), 0);
}

TEST(SigninThrottleTest, ZeroFailuresMeansNoLimit) {
    SigninThrottle throttle(0, 10);
    for (int i = 0; i < 100; ++i) throttle.recordFailure("alice", "a");
    EXPECT_EQ(throttle.retryAfterSeconds("alice", "a"), 0);
}

}  // namespace
}  // namespace kiv::server
