// Process configuration: special directories and the scaling factor.
//
// The current configuration is read once from the file named by the
// environment variable KIV_CONFIG (lines "key = value"; keys "datadir" and
// "scalingfactor"; '#' starts a comment), then overridden by the variables
// KIV_DATA_DIR and KIV_SCALING_FACTOR. Without either, the data directory is
// the build tree's data/ when that exists, else the installed share/kiv.
// Special directory 9 is the data directory (it holds "schemas" and
// "messages"). The scaling factor defaults to 1.0.
//
// Thread safety: all functions may be called from any thread. A snapshot
// keeps the configuration it took alive while later changes are made.
#pragma once

#include "qz/platform/export.h"

#include <map>
#include <memory>

#include "qz/platform/string.h"

namespace kiv {

class KIV_API ConfigReader {
public:
    static constexpr int kDataDirectory = 9;

    ConfigReader(std::map<int, String> specialDirectories, double scalingFactor)
        : m_dirs(std::move(specialDirectories)), m_scalingFactor(scalingFactor) {}

    // The directory for number n, without a trailing slash; blank if unknown.
    String getSpecialDirectory(int n) const;
    double getScalingFactor() const noexcept { return m_scalingFactor; }

private:
    std::map<int, String> m_dirs;
    double m_scalingFactor;
};

class KIV_API ConfigSnapshot {
public:
    // Takes the current configuration.
    ConfigSnapshot();
    // Null when no configuration is available.
    const ConfigReader* getConfigReader() const noexcept { return m_reader.get(); }

private:
    std::shared_ptr<const ConfigReader> m_reader;
};

namespace config {
// Loads the configuration from the file and environment as described above.
KIV_API std::shared_ptr<const ConfigReader> loadDefault();
// Replaces the current configuration (null: none available). For hosts and tests.
KIV_API void setCurrent(std::shared_ptr<const ConfigReader> reader);
KIV_API std::shared_ptr<const ConfigReader> getCurrent();
// The process-wide scaling factor of the current configuration (1.0 without one).
KIV_API double getScalingFactor() noexcept;
// The data directory (special directory 9) of the current configuration.
KIV_API String getDataDirectory();
}  // namespace config

}  // namespace kiv
