// Fuzzes the JSON evaluator: any text either fails evaluation or yields a
// value whose JSON text evaluates again to the same text (round trip), and
// every element and property of it can be read.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "qz/platform/exception.h"
#include "qz/platform/gd.h"

namespace {

using namespace kiv;

// Reads every element and property, and the text form of each, as the
// favorites input does.
void readAll(GDContext& ctx, const GDVariant& v, int depth) {
    if (depth > 600) std::abort();  // deeper than the evaluator allows
    GDValue* value = v.getValue() ? v.getValue()->resolveReferences() : nullptr;
    if (auto* arr = dynamic_cast<IGDRandomAccessContainer*>(value)) {
        GDAdjustableSizeVariant e;
        for (std::size_t i = 0; i < arr->getCount(); ++i) {
            if (!arr->getElement(i, e)) std::abort();
            readAll(ctx, e.getReferencedValue(), depth + 1);
        }
        if (arr->getElement(arr->getCount(), e)) std::abort();
    } else if (auto* obj = dynamic_cast<GDJsonObject*>(value)) {
        for (const auto& m : obj->members()) {
            GDAdjustableSizeVariant p;
            if (!obj->getProperty(ctx, GDPropertyKey(m.first), p)) std::abort();
            readAll(ctx, p.getReferencedValue(), depth + 1);
        }
    }
    (void)GDTypeConversions::toString(ctx, v);
}

String toText(const std::uint8_t* data, std::size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    // A leading 0x01 byte: take the rest as raw 32-bit characters, which may
    // hold surrogates and values beyond Unicode.
    if (size > 0 && data[0] == 0x01) {
        String s;
        for (std::size_t i = 1; i + 4 <= size; i += 4) {
            std::uint32_t c;
            std::memcpy(&c, data + i, 4);
            s.push_back(static_cast<wchar_t>(c));
        }
        return s;
    }
    try {
        return String::fromUtf8(bytes);
    } catch (const Utf8Error&) {
        String s;  // not UTF-8: each byte one character
        for (unsigned char c : bytes) s.push_back(static_cast<wchar_t>(c));
        return s;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // One evaluator per input, as the favorites input makes one per request.
    // (An evaluator kept across inputs would keep the texts its context
    // remembers alive from one input to the next, which makes libFuzzer run a
    // leak scan after nearly every input.)
    GDExpressionEvaluator evaluator;
    const String text = toText(data, size);
    GDVariant value;
    const std::size_t length = (size > 0 && data[0] == 0x02) ? text.size() / 2 : text.size();
    if (!evaluator.evaluateExpression(text, length, value, 1)) return 0;
    GDContext& ctx = evaluator.getContext();
    readAll(ctx, value, 0);

    const String json = GDTypeConversions::toJson(ctx, value);
    GDVariant again;
    if (!evaluator.evaluateExpression(json, json.size(), again, 1)) std::abort();
    if (GDTypeConversions::toJson(ctx, again) != json) std::abort();
    if (value.getValue()) {
        // The text form of a container is JSON text that reads back the same.
        const String form = GDTypeConversions::toString(ctx, value);
        if (form != json) std::abort();
    }
    return 0;
}
