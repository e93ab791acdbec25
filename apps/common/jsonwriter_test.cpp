#include "jsonwriter.h"

#include <gtest/gtest.h>

namespace kiv::host {
namespace {

TEST(JsonWriterTest, QuotesEscapeQuotesBackslashesAndControlCharactersOnly) {
    EXPECT_EQ(JsonWriter::quote("plain"), "\"plain\"");
    EXPECT_EQ(JsonWriter::quote("a\"b\\c"), "\"a\\\"b\\\\c\"");
    EXPECT_EQ(JsonWriter::quote(std::string_view("\b\f\n\r\t\x01\x7f", 7)), "\"\\b\\f\\n\\r\\t\\u0001\\u007f\"");
    EXPECT_EQ(JsonWriter::quote("Ums\xC3\xA4tze / \xE2\x82\xAC"), "\"Ums\xC3\xA4tze / \xE2\x82\xAC\"");
    EXPECT_EQ(JsonWriter::quote(""), "\"\"");
    EXPECT_EQ(JsonWriter::quote("\"\""), "\"\\\"\\\"\"");
}

TEST(JsonWriterTest, KeysAndValuesAreEscapedAndSeparated) {
    JsonWriter w;
    w.beginObject().member("k\"ey", "v\nal").member("n", 3).key("list").beginArray().value(true).null().endArray();
    w.endObject();
    EXPECT_EQ(w.str(), "{\"k\\\"ey\":\"v\\nal\",\"n\":3,\"list\":[true,null]}");
}

}  // namespace
}  // namespace kiv::host
