#include "soapfavorites.h"

#include <gtest/gtest.h>

namespace kiv::host {
namespace {

std::unique_ptr<SoapRequest> parse(const std::string& operationContent) {
    return SoapRequest::parse(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
        "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\""
        " xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\""
        " xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\""
        " xmlns:fav=\"urn:kiv:favorites\"><SOAP-ENV:Body><fav:updateFavorites>" +
        operationContent + "</fav:updateFavorites></SOAP-ENV:Body></SOAP-ENV:Envelope>");
}

std::vector<std::wstring> names(const std::vector<SoapParameter*>& items) {
    std::vector<std::wstring> out;
    for (SoapParameter* p : items) out.push_back(p->getName());
    return out;
}

TEST(SoapFavoritesTest, TheItemsAreTheOperationsChildrenNamedFavoriteItemInOrder) {
    auto req = parse("<favoriteItem><name>a</name></favoriteItem><other/><favoriteItem/>");
    auto items = favoriteItemsOf(*req);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0]->getChildCount(), 1u);
    EXPECT_EQ(items[1]->getType(), SoapParameter::kString);  // an empty untyped element
}

TEST(SoapFavoritesTest, AnArrayWrapperGivesItsElementsOfAnyName) {
    auto req = parse("<favoriteItems xsi:type=\"SOAP-ENC:Array\" SOAP-ENC:arrayType=\"fav:FavoriteItem[2]\">"
                     "<item><name>a</name></item><entry><name>b</name></entry></favoriteItems>");
    EXPECT_EQ(names(favoriteItemsOf(*req)), (std::vector<std::wstring>{L"item", L"entry"}));
}

TEST(SoapFavoritesTest, DirectItemsWinOverAnArrayWrapper) {
    auto req = parse("<favoriteItems><item/></favoriteItems><favoriteItem><name>a</name></favoriteItem>");
    EXPECT_EQ(names(favoriteItemsOf(*req)), (std::vector<std::wstring>{L"favoriteItem"}));
}

TEST(SoapFavoritesTest, OnlyTheFirstArrayWrapperCounts) {
    auto req = parse("<favoriteItems><a/></favoriteItems><favoriteItems><b/><c/></favoriteItems>");
    EXPECT_EQ(names(favoriteItemsOf(*req)), (std::vector<std::wstring>{L"a"}));
}

TEST(SoapFavoritesTest, AnOperationWithoutItemsHasNone) {
    EXPECT_TRUE(favoriteItemsOf(*parse("")).empty());
    EXPECT_TRUE(favoriteItemsOf(*parse("<other><favoriteItem/></other>")).empty());
}

}  // namespace
}  // namespace kiv::host
