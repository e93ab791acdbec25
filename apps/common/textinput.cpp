#include "textinput.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "qz/platform/exception.h"
#include "qz/webcatalog/itemname.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "hosterrors.h"

namespace kiv::host {

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const noexcept { std::fclose(f); }
};

std::string readAll(std::FILE* f, const std::string& name) {
    std::string data;
    char buf[65536];
    for (;;) {
        const std::size_t n = std::fread(buf, 1, sizeof buf, f);
        if (n > 0) {
            if (data.size() + n > kMaxInputBytes)
                throw InputError(name + ": larger than " + std::to_string(kMaxInputBytes / (1024 * 1024)) + " MiB");
            data.append(buf, n);
        }
        if (n < sizeof buf) {
            if (std::ferror(f)) throw InputError(name + ": " + std::strerror(errno));
            break;
        }
    }
    return data;
}

std::string quoted(const std::string& s) { return "'" + s + "'"; }

}  // namespace

std::string readInput(const std::string& fileOrDash) {
    if (fileOrDash == "-") return readAll(stdin, "standard input");
    std::unique_ptr<std::FILE, FileCloser> f(std::fopen(fileOrDash.c_str(), "rb"));
    if (!f) throw InputError("cannot read " + quoted(fileOrDash) + ": " + std::strerror(errno));
    return readAll(f.get(), fileOrDash);
}

String argumentText(const std::string& utf8, std::string_view what) {
    try {
        return String::fromUtf8(utf8);
    } catch (const Utf8Error& e) {
        throw UsageError(std::string(what) + " is not valid UTF-8 (" + e.what() + ")");
    }
}

String inputText(const std::string& utf8, std::string_view what) {
    try {
        return String::fromUtf8(utf8);
    } catch (const Utf8Error& e) {
        throw InputError(std::string(what) + " is not valid UTF-8 (" + e.what() + ")");
    }
}

catalog::Path catalogPathArgument(const std::string& utf8, std::string_view what) {
    const String text = argumentText(utf8, what);
    const catalog::EItemNameValidity v = catalog::Path::checkPath(text);
    if (v != catalog::kItemNameValid)
        throw UsageError(std::string(what) + " " + quoted(utf8) + " is not a valid catalog path (" +
                         catalog::validityName(v) + ")");
    return catalog::Path(text);
}

String itemNameArgument(const std::string& utf8, std::string_view what) {
    const String text = argumentText(utf8, what);
    const catalog::EItemNameValidity v = catalog::ItemName::checkItemName(text, catalog::ItemName::kOnErrorReturn);
    if (v != catalog::kItemNameValid)
        throw UsageError(std::string(what) + " " + quoted(utf8) + " is not a valid name (" +
                         catalog::validityName(v) + ")");
    return text;
}

catalog::Path categoryArgument(const std::string& utf8, std::string_view what) {
    const String root = FavoritesManager::getRootFolderPath().toString();
    String text = argumentText(utf8, what);
    if (text.empty()) return FavoritesManager::getRootFolderPath();
    if (text.front() != L'/') text = root + L"/" + text;
    while (text.size() > 1 && text.back() == L'/' && text[text.size() - 2] != L'\\') text.pop_back();
    const catalog::EItemNameValidity v = catalog::Path::checkPath(text);
    if (v != catalog::kItemNameValid)
        throw UsageError(std::string(what) + " " + quoted(utf8) + " is not a valid category path (" +
                         catalog::validityName(v) + ")");
    return catalog::Path(text);
}

std::string terminalText(std::string_view utf8, bool keepLineFeeds) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(utf8.size());
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        const auto b = static_cast<unsigned char>(utf8[i]);
        if ((b < 0x20 && !(b == '\n' && keepLineFeeds)) || b == 0x7f) {
            out += "\\x";
            out += kHex[b >> 4];
            out += kHex[b & 15];
        } else if (b == 0xc2 && i + 1 < utf8.size() && static_cast<unsigned char>(utf8[i + 1]) >= 0x80 &&
                   static_cast<unsigned char>(utf8[i + 1]) <= 0x9f) {
            const auto c1 = static_cast<unsigned char>(utf8[++i]);
            out += "\\u00";
            out += kHex[c1 >> 4];
            out += kHex[c1 & 15];
        } else {
            out += static_cast<char>(b);
        }
    }
    return out;
}

}  // namespace kiv::host
