// Helpers shared by the SQLite catalog tests: a temporary directory, and a
// reader and a writer that record what the catalog does with them.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "qz/webcatalog/readerwriter.h"
#include "qz/webcatalog/sqlitecatalog.h"

namespace kiv::catalog::testing {

class TempDir {
public:
    TempDir() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/kivcat.XXXXXX";
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
    std::string file(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

inline std::string readFileBytes(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFileBytes(const std::string& file, const std::string& bytes) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

class RecordingWriter : public Writer {
public:
    RecordingWriter(std::string body, String signature = L"test1")
        : m_body(std::move(body)), m_signature(std::move(signature)) {}

    void write(OutputStream& stream) const override {
        ++writeCalls;
        if (throwOnWrite) throw Exception(String(L"writer failed"));
        stream.write(m_body.data(), m_body.size());
    }
    String getSignature() const override { return m_signature; }
    void postInspectWrite(const ItemInfo& info) const override {
        ++postCalls;
        written = info;
    }
    bool validatePrivileges(const AccountToken& user) const override {
        return privilegesOk && Writer::validatePrivileges(user);
    }
    void setBody(std::string body) { m_body = std::move(body); }

    bool privilegesOk = true;
    bool throwOnWrite = false;
    mutable int writeCalls = 0;
    mutable int postCalls = 0;
    mutable ItemInfo written;

private:
    std::string m_body;
    String m_signature;
};

class RecordingReader : public Reader {
public:
    explicit RecordingReader(String signature = L"test1") : m_signature(std::move(signature)) {}

    PreInspectReadReturnCode preInspectRead(const ItemInfo& info) override {
        ++preCalls;
        seenInfo = info;
        modeAtPreInspect = getUpgradeMode();
        return stopAtPreInspect ? kDontContinueToRead : kContinueToRead;
    }
    String getSignature() const override { return m_signature; }
    bool isObjectTypeMatch(const ItemInfo& info) const override {
        return m_signature.equals(info.getObjectSignature(kInfoResolved));
    }
    bool read(const void* data, std::size_t size, const ItemInfo&) override {
        ++readCalls;
        if (throwOnRead) throw CatalogUpgradeRequired(L"needs upgrading.", String());
        body.assign(static_cast<const char*>(data), size);
        return false;
    }
    Writer* getWriter() override { return nullptr; }
    bool validatePrivileges(const AccountToken&) const override { return privilegesOk; }

    bool stopAtPreInspect = false;
    bool throwOnRead = false;
    bool privilegesOk = true;
    int preCalls = 0;
    int readCalls = 0;
    UpgradeMode modeAtPreInspect = kUpgradeNone;
    ItemInfo seenInfo;
    std::string body;

private:
    String m_signature;
};

class NeverReplace : public ReplaceHelper {
public:
    bool mayReplace(const ItemInfo& existing) const override {
        ++calls;
        seen = existing;
        return false;
    }
    mutable int calls = 0;
    mutable ItemInfo seen;
};

}  // namespace kiv::catalog::testing
