// Message files and the message values that resolve through them.
//
// A message file is an XML document in <data>/messages:
//   <messages>
//     <message id="kmsgSomething">Text with an insert %1.</message>
//   </messages>
// The text of a message is the element's text content with the surrounding
// whitespace trimmed. When two registered files define one identifier, the
// file registered first wins.
#include "qz/platform/message.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>

#include "qz/platform/config.h"
#include "qz/platform/exception.h"
#include "qz/platform/logger.h"
#include "qz/platform/xml.h"

namespace kiv {

namespace {

// Message files are small; anything larger than this is not one.
constexpr std::size_t kMaxMessageFileBytes = 4u * 1024u * 1024u;

bool isSpace(wchar_t c) noexcept { return c == L' ' || c == L'\t' || c == L'\n' || c == L'\r'; }

String trimmed(const String& s) {
    std::size_t b = 0, e = s.size();
    while (b < e && isSpace(s[b])) ++b;
    while (e > b && isSpace(s[e - 1])) --e;
    return String(s.substr(b, e - b));
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Exception(String(L"The file cannot be opened."));
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    if (size < 0) throw Exception(String(L"The file cannot be read."));
    if (static_cast<std::uint64_t>(size) > kMaxMessageFileBytes)
        throw Exception(String(L"The file is too large to be a message file."));
    in.seekg(0, std::ios::beg);
    std::string data(static_cast<std::size_t>(size), '\0');
    if (size > 0 && !in.read(data.data(), size)) throw Exception(String(L"The file cannot be read."));
    return data;
}

// Reads one message file into `out` (id, text). Raises Exception when the
// file cannot be read or is not a message file.
void loadMessageFile(const String& path, std::vector<std::pair<String, String>>& out) {
    const std::string data = readFile(path.toUtf8());
    XmlDocument doc;
    doc.parse(data.data(), data.size());
    const XmlElement& root = doc.getRootElementRef();
    if (root.getLocalName() != L"messages")
        throw XmlException(String(L"The root element is '") + root.getLocalName() + L"', not 'messages'.");
    for (const XmlElement* e = root.getFirstChildElement(); e; e = e->getNextSiblingElement()) {
        if (e->getLocalName() != L"message") continue;
        String id = e->getAttributeValue(L"id", XmlElement::kRequired);
        if (id.empty()) throw XmlException(String(L"A message has an empty 'id'."));
        out.emplace_back(std::move(id), trimmed(e->getTextContent()));
    }
}

struct LoadFailure {
    String path;
    String reason;
};

}  // namespace

// -- MessageFilesRegistry -------------------------------------------------------------

MessageFilesRegistry& MessageFilesRegistry::getRegistry() {
    // Never destroyed: messages may be resolved during static destruction.
    static MessageFilesRegistry* registry = new MessageFilesRegistry;
    return *registry;
}

void MessageFilesRegistry::registerMessageFiles(const String& fileName) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (std::find(m_files.begin(), m_files.end(), fileName) == m_files.end()) m_files.push_back(fileName);
    m_bLoaded = false;
}

std::vector<String> MessageFilesRegistry::registeredFiles() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_files;
}

void MessageFilesRegistry::reload() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_texts.clear();
    m_bLoaded = false;
}

namespace {
// Failures met while loading under the registry's lock, logged after it is
// released (a log writer may itself resolve messages).
thread_local std::vector<LoadFailure> t_failures;
}  // namespace

void MessageFilesRegistry::loadPendingLocked() {
    if (m_bLoaded) return;
    m_bLoaded = true;
    m_texts.clear();
    const String dir = config::getDataDirectory();
    for (const String& file : m_files) {
        const String path = dir + L"/messages/" + file;
        std::vector<std::pair<String, String>> texts;
        try {
            if (dir.empty()) throw Exception(String(L"No data directory is configured."));
            loadMessageFile(path, texts);
        } catch (const Exception& e) {
            t_failures.push_back({path, e.getMessageText()});
            continue;
        } catch (const std::exception& e) {
            t_failures.push_back({path, String::fromUtf8(e.what())});
            continue;
        }
        m_texts.insert(m_texts.end(), std::make_move_iterator(texts.begin()),
                       std::make_move_iterator(texts.end()));
    }
    // Stable, so that of equal identifiers the first registered stays first.
    std::stable_sort(m_texts.begin(), m_texts.end(),
                     [](const auto& a, const auto& b) { return a.first.compare(b.first) < 0; });
    m_texts.erase(std::unique(m_texts.begin(), m_texts.end(),
                              [](const auto& a, const auto& b) { return a.first == b.first; }),
                  m_texts.end());
}

std::optional<String> MessageFilesRegistry::lookup(const String& id) {
    std::optional<String> result;
    std::vector<LoadFailure> failures;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        loadPendingLocked();
        failures.swap(t_failures);
        auto it = std::lower_bound(
            m_texts.begin(), m_texts.end(), id,
            [](const auto& entry, const String& key) { return entry.first.compare(key) < 0; });
        if (it != m_texts.end() && it->first == id) result = it->second;
    }
    for (const LoadFailure& f : failures) {
        Logger::getLogger().log(
            kSevError, GDVariant(String(L"The message file '%1' cannot be loaded and is skipped: %2")),
            {GDVariant(f.path), GDVariant(f.reason)}, KIV_FILE_LOCATION(__FILE__, __LINE__));
    }
    return result;
}

// -- ExternalMessage / ParamMessage --------------------------------------------------------

const std::vector<GDVariant>& ExternalMessage::getInserts() const noexcept {
    static const std::vector<GDVariant> kNone;
    return kNone;
}

String ExternalMessage::getText() const {
    std::optional<String> text = MessageFilesRegistry::getRegistry().lookup(m_id);
    if (!text) return m_id;
    return formatInserts(*text, getInserts());
}

void ParamMessage::setParam(unsigned index, GDVariant value) {
    if (index == 0) return;  // inserts are numbered from 1
    if (m_inserts.size() < index) m_inserts.resize(index);
    m_inserts[index - 1] = std::move(value);
}

String ParamMessage::getText() const {
    std::optional<String> text = MessageFilesRegistry::getRegistry().lookup(m_id);
    if (text) return formatInserts(*text, m_inserts);
    // Unknown identifier: the identifier, then the inserts, so that nothing
    // the message was to say is lost.
    String out = m_id;
    for (std::size_t i = 0; i < m_inserts.size(); ++i) {
        out += (i == 0) ? L": " : L", ";
        out += m_inserts[i].toText();
    }
    return out;
}

}  // namespace kiv
