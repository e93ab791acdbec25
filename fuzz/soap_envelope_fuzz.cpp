// Fuzzes the SOAP envelope parser: any bytes either raise SoapException or
// give a request whose whole parameter tree can be walked (references,
// conversions and all) in bounded time.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "qz/platform/soap.h"
#include "soapfavorites.h"

namespace {

using namespace kiv;

// Reads one scalar child the way the favorites input does.
SoapParameter* valueOf(SoapParameter& parent, const String& name, const SoapParametersIterator& it,
                       SoapParameter::EType type) {
    SoapParameter* p = parent.getChildParam(name, it, true, false);
    p->convert(type);
    int hops = 0;
    while (p->getType() == SoapParameter::kRef || p->getType() == SoapParameter::kRefUnresolved) {
        if (++hops > 1000000) std::abort();  // a reference loop that was not cut
        if (p->getType() == SoapParameter::kRefUnresolved) p->resolveRef();
        p = p->getRefParam();
    }
    return p;
}

// The favorites input's walk over items and their sub-items.
void walkItems(const std::vector<SoapParameter*>& items, int depth, std::size_t& visited) {
    if (depth > 1000) std::abort();  // nesting beyond the parser's limits
    for (SoapParameter* item : items) {
        if (++visited > 10000000) std::abort();
        try {
            auto it = item->begin();
            valueOf(*item, L"name", it, SoapParameter::kString)->getString();
            ++it;
            valueOf(*item, L"path", it, SoapParameter::kString)->getString();
            ++it;
            const auto type = valueOf(*item, L"type", it, SoapParameter::kUnsignedShort)->getUnsignedShort();
            ++it;
            if (type != 0) {
                item->getChildParam(L"favoriteItem", it, false, false);
                std::vector<SoapParameter*> subs;
                for (; it != item->end() && item->getChildParam(it) &&
                       item->getChildParam(it)->getName() == L"favoriteItem";
                     ++it)
                    subs.push_back(item->getChildParam(it));
                walkItems(subs, depth + 1, visited);
            } else {
                valueOf(*item, L"catalogPath", it, SoapParameter::kString)->getString();
            }
        } catch (const Exception&) {
            // a bad item is left out
        }
    }
}

// Visits every parameter through structure access (references followed).
void visitAll(SoapParameter& p, int depth, std::size_t& visited) {
    if (depth > 100000 || ++visited > 10000000) std::abort();
    try {
        (void)p.getString();
    } catch (const SoapException&) {
    }
    for (auto it = p.begin(); it != p.end(); ++it) visitAll(**it, depth + 1, visited);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("KIV_LOG_LEVEL", "5", 0);  // keep the reference assertions off the output
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::unique_ptr<SoapRequest> request;
    try {
        request = SoapRequest::parse(std::string_view(reinterpret_cast<const char*>(data), size));
    } catch (const SoapException&) {
        return 0;
    }
    std::size_t visited = 0;
    for (SoapParameter* p : request->getBodyParams()) visitAll(*p, 0, visited);
    visited = 0;
    walkItems(kiv::host::favoriteItemsOf(*request), 0, visited);
    return 0;
}
