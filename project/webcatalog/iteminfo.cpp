// ItemInfo: property look-up.
#include "qz/webcatalog/iteminfo.h"

namespace kiv::catalog {

String ItemInfo::getItemProperty(const String& name, const String& defaultValue, EItemInfo which) const {
    const auto& properties = entry(which).properties;
    const auto it = properties.find(name);
    return it == properties.end() ? defaultValue : it->second;
}

}  // namespace kiv::catalog
