// Messages: external message texts kept in XML message files.
//
// A message file lives in the data directory's "messages" folder:
//   <messages>
//     <message id="kmsgSomething">Text with an insert %1.</message>
//   </messages>
// MessageFilesRegistry loads registered files (on first lookup after a
// registration) and resolves an identifier to its text: the element's text
// with surrounding whitespace trimmed; when two files define one identifier,
// the file registered first wins. ExternalMessage names
// an identifier; ParamMessage adds inserts to one. Both are Message values
// that a GDVariant carries and that resolve their text when asked.
//
// Thread safety: the registry may be used from any thread.
#pragma once

#include "qz/platform/export.h"

#include <mutex>
#include <optional>
#include <vector>

#include "qz/platform/gdvariant.h"
#include "qz/platform/string.h"

namespace kiv {

class KIV_API MessageFilesRegistry {
public:
    static MessageFilesRegistry& getRegistry();

    // Registers a message file by name (relative to <data>/messages). Files
    // that fail to load are reported through the logger and skipped.
    void registerMessageFiles(const String& fileName);
    // The text for an identifier, if any registered file defines it.
    std::optional<String> lookup(const String& id);
    // Forgets the loaded texts; they are read again on the next lookup (after
    // the data directory changed, for instance).
    void reload();
    std::vector<String> registeredFiles() const;

private:
    MessageFilesRegistry() = default;
    void loadPendingLocked();
    mutable std::mutex m_mutex;
    std::vector<String> m_files;
    std::vector<std::pair<String, String>> m_texts;  // sorted by id
    bool m_bLoaded = false;
};

class KIV_API ExternalMessage : public Message {
public:
    explicit ExternalMessage(String id, unsigned options = 0) : m_id(std::move(id)), m_options(options) {}
    const String& getId() const noexcept override { return m_id; }
    const std::vector<GDVariant>& getInserts() const noexcept override;
    String getText() const override;
    unsigned getOptions() const noexcept { return m_options; }

private:
    String m_id;
    unsigned m_options;
};

class KIV_API ParamMessage : public Message {
public:
    explicit ParamMessage(const ExternalMessage& message) : m_id(message.getId()) {}
    // Sets insert `index` (numbered from 1), growing the inserts as needed;
    // index 0 is ignored. For an identifier no file defines, getText gives
    // "<id>: <insert 1>, <insert 2>, ...".
    void setParam(unsigned index, GDVariant value);
    const String& getId() const noexcept override { return m_id; }
    const std::vector<GDVariant>& getInserts() const noexcept override { return m_inserts; }
    String getText() const override;

private:
    String m_id;
    std::vector<GDVariant> m_inserts;
};

}  // namespace kiv
