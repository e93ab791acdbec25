#include "qz/platform/gdvariant.h"

#include <charconv>
#include <cmath>

namespace kiv {

String GDVariant::toText() const {
    switch (kind()) {
        case Kind::kEmpty: return String();
        case Kind::kBool: return getBool() ? String(L"true") : String(L"false");
        case Kind::kInt: {
            // to_chars rather than to_wstring, which formats through swprintf.
            char buf[24];
            auto res = std::to_chars(buf, buf + sizeof buf, getInt());
            return String(std::wstring(buf, res.ptr));
        }
        case Kind::kDouble: {
            const double d = getDouble();
            if (std::isnan(d)) return String(L"nan");
            if (std::isinf(d)) return d > 0 ? String(L"inf") : String(L"-inf");
            char buf[64];
            auto res = std::to_chars(buf, buf + sizeof buf, d);
            return String(std::wstring(buf, res.ptr));
        }
        case Kind::kString: return getString();
        case Kind::kMessage: {
            // A variant may hold a null message pointer; render it as blank.
            const Message* m = getMessage();
            return m ? m->getText() : String();
        }
        case Kind::kValue: return String(L"[value]");
    }
    return String();
}

bool operator==(const GDVariant& a, const GDVariant& b) {
    if (a.kind() != b.kind()) return false;
    switch (a.kind()) {
        case GDVariant::Kind::kEmpty: return true;
        case GDVariant::Kind::kBool: return a.getBool() == b.getBool();
        case GDVariant::Kind::kInt: return a.getInt() == b.getInt();
        case GDVariant::Kind::kDouble: return a.getDouble() == b.getDouble();
        case GDVariant::Kind::kString: return a.getString() == b.getString();
        case GDVariant::Kind::kMessage: {
            const Message* ma = a.getMessage();
            const Message* mb = b.getMessage();
            if (!ma || !mb) return ma == mb;
            return ma->getId() == mb->getId() && ma->getInserts() == mb->getInserts();
        }
        case GDVariant::Kind::kValue: return a.getValue() == b.getValue();
    }
    return false;
}

}  // namespace kiv
