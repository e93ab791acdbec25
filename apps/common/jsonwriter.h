// JsonWriter: a small writer of compact JSON text, for the tool's --json
// output and the server's answers. It only writes.
//
// Strings are given as UTF-8 (or as String, encoded through the strict
// codec) and written with '"', '\\' and the control characters escaped; other
// characters are written as they are. The writer places the commas and keeps
// track of nesting; the caller pairs begin and end calls.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qz/platform/string.h"

namespace kiv::host {

class JsonWriter {
public:
    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    // The key of the next member of the current object.
    JsonWriter& key(std::string_view name);

    JsonWriter& value(std::string_view utf8);
    JsonWriter& value(const char* utf8) { return value(std::string_view(utf8)); }
    JsonWriter& value(const String& text) { return value(std::string_view(text.toUtf8())); }
    JsonWriter& value(bool b);
    JsonWriter& value(std::int64_t n);
    JsonWriter& value(int n) { return value(static_cast<std::int64_t>(n)); }
    JsonWriter& null();

    // key(name).value(v)
    template <class T>
    JsonWriter& member(std::string_view name, const T& v) {
        key(name);
        return value(v);
    }

    const std::string& str() const noexcept { return m_out; }

    // The JSON string literal of `utf8`, quotes included.
    static std::string quote(std::string_view utf8);

private:
    void beforeValue();

    std::string m_out;
    // One entry per open container: true once it holds a member or element.
    std::vector<bool> m_hasItems;
    bool m_afterKey = false;
};

}  // namespace kiv::host
