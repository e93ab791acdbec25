#include "qz/platform/config.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>

#include "qz/platform/exception.h"
#include "qz/platform/logger.h"

#ifndef KIV_BUILD_DATA_DIR
#define KIV_BUILD_DATA_DIR ""
#endif
#ifndef KIV_INSTALL_DATA_DIR
#define KIV_INSTALL_DATA_DIR "/usr/local/share/kiv"
#endif

namespace kiv {

namespace fs = std::filesystem;

String ConfigReader::getSpecialDirectory(int n) const {
    const auto it = m_dirs.find(n);
    if (it == m_dirs.end()) return String();
    String dir = it->second;
    // "/" alone stays: it is the root, not a trailing slash.
    while (dir.size() > 1 && dir.back() == L'/') dir.pop_back();
    return dir;
}

namespace {

const LogSourceHandle& configLogSource() {
    static const LogSourceHandle s(String(L"config"));
    return s;
}

void warn(int line, const String& text, std::initializer_list<GDVariant> inserts) {
    Logger::getLogger().log(kSevWarning, GDVariant(text), inserts, KIV_FILE_LOCATION("project/platform/config", line),
                            &configLogSource());
}

// Environment values and file contents are bytes; undecodable ones are
// reported and ignored rather than trusted.
bool decode(std::string_view bytes, String& out) {
    try {
        out = String::fromUtf8(bytes);
        return true;
    } catch (const Utf8Error&) {
        return false;
    }
}

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = s.find_last_not_of(" \t\r\n");
    return s.substr(first, last - first + 1);
}

// A scaling factor is a positive finite decimal number and nothing else.
bool parseScalingFactor(std::string_view text, double& out) {
    text = trim(text);
    if (text.empty()) return false;
    if (text.front() == '+') text.remove_prefix(1);
    double d = 0;
    const auto res = std::from_chars(text.data(), text.data() + text.size(), d);
    if (res.ec != std::errc() || res.ptr != text.data() + text.size()) return false;
    if (!std::isfinite(d) || d <= 0) return false;
    out = d;
    return true;
}

void applyScalingFactor(std::string_view text, const char* where, double& factor) {
    double d = 0;
    if (parseScalingFactor(text, d)) {
        factor = d;
        return;
    }
    String shown;
    if (!decode(text, shown)) shown = L"(not UTF-8)";
    warn(__LINE__, L"Ignoring the invalid scaling factor \"%1\" from %2; keeping %3.",
         {GDVariant(shown), GDVariant(String::fromUtf8(where)), GDVariant(factor)});
}

String defaultDataDirectory() {
    std::error_code ec;
    const std::string build = KIV_BUILD_DATA_DIR;
    if (!build.empty() && fs::is_directory(build, ec)) return String::fromUtf8(build);
    return String::fromUtf8(KIV_INSTALL_DATA_DIR);
}

// Reads "key = value" lines; '#' starts a comment that runs to the end of the
// line. A relative data directory is taken relative to the file's directory.
void readConfigFile(const std::string& path, String& dataDir, double& factor) {
    String shownPath;
    if (!decode(path, shownPath)) shownPath = L"(not UTF-8)";
    std::ifstream in(path);
    if (!in) {
        warn(__LINE__, L"Cannot read the configuration file %1; using the defaults.", {GDVariant(shownPath)});
        return;
    }
    std::string line;
    int lineNo = 0;
    while (std::getline(in, line)) {
        ++lineNo;
        std::string_view l(line);
        if (const auto hash = l.find('#'); hash != std::string_view::npos) l = l.substr(0, hash);
        l = trim(l);
        if (l.empty()) continue;
        const auto eq = l.find('=');
        if (eq == std::string_view::npos) {
            warn(__LINE__, L"%1:%2: ignoring a line without \"=\".", {GDVariant(shownPath), GDVariant(lineNo)});
            continue;
        }
        std::string key(trim(l.substr(0, eq)));
        const std::string_view value = trim(l.substr(eq + 1));
        for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (key == "datadir") {
            String dir;
            if (value.empty() || !decode(value, dir)) {
                warn(__LINE__, L"%1:%2: ignoring an empty or undecodable data directory.",
                     {GDVariant(shownPath), GDVariant(lineNo)});
                continue;
            }
            fs::path p(value);
            if (p.is_relative()) p = fs::path(path).parent_path() / p;
            dataDir = String::fromUtf8(p.lexically_normal().string());
        } else if (key == "scalingfactor") {
            applyScalingFactor(value, "the configuration file", factor);
        } else {
            String shownKey;
            if (!decode(key, shownKey)) shownKey = L"(not UTF-8)";
            warn(__LINE__, L"%1:%2: ignoring the unknown key \"%3\".",
                 {GDVariant(shownPath), GDVariant(lineNo), GDVariant(shownKey)});
        }
    }
}

struct CurrentConfig {
    std::mutex mutex;
    std::shared_ptr<const ConfigReader> reader;
    bool bSet = false;  // false until loaded or set; null after setCurrent(nullptr) means "none"
};

CurrentConfig& current() {
    static CurrentConfig* const s = new CurrentConfig();  // never destroyed: usable during exit
    return *s;
}

}  // namespace

namespace config {

std::shared_ptr<const ConfigReader> loadDefault() {
    String dataDir = defaultDataDirectory();
    double factor = 1.0;

    if (const char* file = std::getenv("KIV_CONFIG"); file && *file) readConfigFile(file, dataDir, factor);

    if (const char* dir = std::getenv("KIV_DATA_DIR"); dir && *dir) {
        String d;
        if (decode(dir, d)) dataDir = d;
        else warn(__LINE__, L"Ignoring KIV_DATA_DIR: it is not UTF-8.", {});
    }
    if (const char* f = std::getenv("KIV_SCALING_FACTOR"); f && *f) applyScalingFactor(f, "KIV_SCALING_FACTOR", factor);

    std::map<int, String> dirs;
    dirs.emplace(ConfigReader::kDataDirectory, std::move(dataDir));
    return std::make_shared<const ConfigReader>(std::move(dirs), factor);
}

void setCurrent(std::shared_ptr<const ConfigReader> reader) {
    std::shared_ptr<const ConfigReader> old;
    {
        CurrentConfig& c = current();
        std::lock_guard<std::mutex> g(c.mutex);
        old = std::exchange(c.reader, std::move(reader));
        c.bSet = true;
    }
    // The previous configuration is released outside the mutex.
}

std::shared_ptr<const ConfigReader> getCurrent() {
    CurrentConfig& c = current();
    {
        std::lock_guard<std::mutex> g(c.mutex);
        if (c.bSet) return c.reader;
    }
    // Loaded outside the mutex (loading may log, and a log writer may ask for
    // the configuration); the first result stored wins.
    auto loaded = loadDefault();
    std::lock_guard<std::mutex> g(c.mutex);
    if (!c.bSet) {
        c.reader = std::move(loaded);
        c.bSet = true;
    }
    return c.reader;
}

double getScalingFactor() noexcept {
    try {
        const auto reader = getCurrent();
        return reader ? reader->getScalingFactor() : 1.0;
    } catch (...) {
        return 1.0;
    }
}

String getDataDirectory() {
    const auto reader = getCurrent();
    return reader ? reader->getSpecialDirectory(ConfigReader::kDataDirectory) : String();
}

}  // namespace config

ConfigSnapshot::ConfigSnapshot() : m_reader(config::getCurrent()) {}

}  // namespace kiv
