#include "jsonwriter.h"

#include "qz/platform/jsonescape.h"

namespace kiv::host {

std::string JsonWriter::quote(std::string_view utf8) {
    std::string out;
    out.reserve(utf8.size() + 2);
    out += '"';
    json::appendJsonEscaped(out, utf8, json::kEscapeDelete);
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
    json::appendJsonEscaped(m_out, name, json::kEscapeDelete);
    m_out += "\":";
    m_afterKey = true;
    return *this;
}

JsonWriter& JsonWriter::value(std::string_view utf8) {
    beforeValue();
    m_out += '"';
    json::appendJsonEscaped(m_out, utf8, json::kEscapeDelete);
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
