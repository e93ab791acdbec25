#include "soapfavorites.h"

namespace kiv::host {

std::vector<SoapParameter*> favoriteItemsOf(SoapRequest& request) {
    static const String ksItem = L"favoriteItem";
    static const String ksWrapper = L"favoriteItems";
    const SoapParameter& op = request.getOperation();
    std::vector<SoapParameter*> items;
    for (auto it = op.begin(); it != op.end(); ++it)
        if ((*it)->getName() == ksItem) items.push_back(*it);
    if (!items.empty()) return items;
    for (auto it = op.begin(); it != op.end(); ++it) {
        if ((*it)->getName() != ksWrapper) continue;
        const SoapParameter* wrapper = *it;
        for (auto w = wrapper->begin(); w != wrapper->end(); ++w) items.push_back(*w);
        break;
    }
    return items;
}

}  // namespace kiv::host
