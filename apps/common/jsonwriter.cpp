#include "jsonwriter.h"

#include <cstdio>

namespace kiv::host {

namespace {

bool needsEscape(unsigned char c) noexcept { return c < 0x20 || c == 0x7f || c == '"' || c == '\\'; }

// Appends `utf8` as the inside of a JSON string: runs that need no escape are
// copied whole.
void appendEscaped(std::string& out, std::string_view utf8) {
    std::size_t run = 0;
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        if (!needsEscape(c)) continue;
        out.append(utf8.data() + run, i - run);
        run = i + 1;
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default: {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            }
        }
    }
    out.append(utf8.data() + run, utf8.size() - run);
}

}  // namespace

std::string JsonWriter::quote(std::string_view utf8) {
    std::string out;
    out.reserve(utf8.size() + 2);
    out += '"';
    appendEscaped(out, utf8);
    out += '"';
    return out;
}

void JsonWriter::beforeValue() {
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (!m_hasItems.empty()) {
        if (m_hasItems.back()) m_out += ',';
        m_hasItems.back() = true;
    }
}

JsonWriter& JsonWriter::beginObject() {
    beforeValue();
    m_out += '{';
    m_hasItems.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    m_out += '}';
    m_hasItems.pop_back();
    return *this;
}

JsonWriter& JsonWriter::beginArray() {
    beforeValue();
    m_out += '[';
    m_hasItems.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::endArray() {
    m_out += ']';
    m_hasItems.pop_back();
    return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
    beforeValue();
    m_out += '"';
    appendEscaped(m_out, name);
    m_out += "\":";
    m_afterKey = true;
    return *this;
}

JsonWriter& JsonWriter::value(std::string_view utf8) {
    beforeValue();
    m_out += '"';
    appendEscaped(m_out, utf8);
    m_out += '"';
    return *this;
}

JsonWriter& JsonWriter::value(bool b) {
    beforeValue();
    m_out += b ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::value(std::int64_t n) {
    beforeValue();
    m_out += std::to_string(n);
    return *this;
}

JsonWriter& JsonWriter::null() {
    beforeValue();
    m_out += "null";
    return *this;
}

}  // namespace kiv::host
