#include "qz/platform/config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <unistd.h>

#include "qz/platform/logger.h"

namespace kiv {
namespace {

namespace fs = std::filesystem;

// Saves and restores one environment variable.
class EnvVar {
public:
    explicit EnvVar(const char* name) : m_name(name) {
        if (const char* v = std::getenv(name)) m_saved = v;
    }
    ~EnvVar() {
        if (m_saved) ::setenv(m_name, m_saved->c_str(), 1);
        else ::unsetenv(m_name);
    }
    void set(const std::string& value) { ::setenv(m_name, value.c_str(), 1); }
    void unset() { ::unsetenv(m_name); }

private:
    const char* m_name;
    std::optional<std::string> m_saved;
};

class Config : public ::testing::Test {
protected:
    void SetUp() override {
        m_saved = config::getCurrent();
        m_configVar.unset();
        m_dataDirVar.unset();
        m_factorVar.unset();
        m_dir = fs::temp_directory_path() / ("kiv_config_test_" + std::to_string(::getpid()));
        fs::create_directories(m_dir);
        m_log = std::make_shared<CapturingLogWriter>();
        Logger::getLogger().clearWriters();  // the expected warnings need not reach stderr
        Logger::getLogger().addWriter(m_log);
    }
    void TearDown() override {
        Logger::getLogger().resetToDefault();
        config::setCurrent(m_saved);
        std::error_code ec;
        fs::remove_all(m_dir, ec);
    }

    std::string writeFile(const std::string& name, const std::string& text) {
        const fs::path p = m_dir / name;
        std::ofstream(p) << text;
        return p.string();
    }

    std::size_t warnings() const {
        std::size_t n = 0;
        for (const auto& r : m_log->records()) {
            if (r.severity != kSevWarning) continue;
            EXPECT_EQ(r.source, String(L"config"));
            EXPECT_EQ(r.file, String(L"project/platform/config"));
            ++n;
        }
        return n;
    }

    EnvVar m_configVar{"KIV_CONFIG"};
    EnvVar m_dataDirVar{"KIV_DATA_DIR"};
    EnvVar m_factorVar{"KIV_SCALING_FACTOR"};
    fs::path m_dir;
    std::shared_ptr<CapturingLogWriter> m_log;

private:
    std::shared_ptr<const ConfigReader> m_saved;
};

TEST_F(Config, WithoutSettingsTheDataDirectoryIsTheBuildTreeData) {
    const auto reader = config::loadDefault();
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->getSpecialDirectory(ConfigReader::kDataDirectory), String::fromUtf8(KIV_TEST_BUILD_DATA_DIR));
    EXPECT_EQ(warnings(), 0u);
}

TEST_F(Config, WithoutSettingsTheScalingFactorIsOne) {
    EXPECT_DOUBLE_EQ(config::loadDefault()->getScalingFactor(), 1.0);
}

TEST_F(Config, DataDirectoryComesFromTheEnvironment) {
    m_dataDirVar.set("/srv/kiv/data");
    EXPECT_EQ(config::loadDefault()->getSpecialDirectory(9), String(L"/srv/kiv/data"));
}

TEST_F(Config, SpecialDirectoryNineIsTheDataDirectory) {
    EXPECT_EQ(ConfigReader::kDataDirectory, 9);
    m_dataDirVar.set("/x/y");
    const auto reader = config::loadDefault();
    EXPECT_EQ(reader->getSpecialDirectory(9), String(L"/x/y"));
    EXPECT_EQ(reader->getSpecialDirectory(8), String());
    EXPECT_EQ(reader->getSpecialDirectory(10), String());
}

TEST_F(Config, SpecialDirectoryHasNoTrailingSlash) {
    m_dataDirVar.set("/srv/kiv/data//");
    EXPECT_EQ(config::loadDefault()->getSpecialDirectory(9), String(L"/srv/kiv/data"));
    const ConfigReader root({{9, String(L"/")}}, 1.0);
    EXPECT_EQ(root.getSpecialDirectory(9), String(L"/"));
}

TEST_F(Config, ScalingFactorComesFromTheEnvironment) {
    m_factorVar.set("2.5");
    EXPECT_DOUBLE_EQ(config::loadDefault()->getScalingFactor(), 2.5);
    m_factorVar.set(" 0.25 ");
    EXPECT_DOUBLE_EQ(config::loadDefault()->getScalingFactor(), 0.25);
}

TEST_F(Config, InvalidScalingFactorKeepsOneAndWarns) {
    for (const char* bad : {"abc", "2x", "0", "-1", "inf", "nan", "1e999", ","}) {
        SCOPED_TRACE(bad);
        m_log->clear();
        m_factorVar.set(bad);
        EXPECT_DOUBLE_EQ(config::loadDefault()->getScalingFactor(), 1.0);
        EXPECT_EQ(warnings(), 1u);
    }
}

TEST_F(Config, FileSetsDataDirectoryAndScalingFactor) {
    m_configVar.set(writeFile("kiv.conf",
                              "# platform settings\n"
                              "\n"
                              "datadir = /opt/kiv/share   # where schemas live\n"
                              "  scalingfactor=3\n"));
    const auto reader = config::loadDefault();
    EXPECT_EQ(reader->getSpecialDirectory(9), String(L"/opt/kiv/share"));
    EXPECT_DOUBLE_EQ(reader->getScalingFactor(), 3.0);
    EXPECT_EQ(warnings(), 0u);
}

TEST_F(Config, FileKeysIgnoreCase) {
    m_configVar.set(writeFile("kiv.conf", "DataDir = /a\nScalingFactor = 1.5\n"));
    const auto reader = config::loadDefault();
    EXPECT_EQ(reader->getSpecialDirectory(9), String(L"/a"));
    EXPECT_DOUBLE_EQ(reader->getScalingFactor(), 1.5);
}

TEST_F(Config, RelativeDataDirectoryInAFileIsRelativeToTheFile) {
    m_configVar.set(writeFile("kiv.conf", "datadir = share/data\n"));
    EXPECT_EQ(config::loadDefault()->getSpecialDirectory(9), String::fromUtf8((m_dir / "share/data").string()));
}

TEST_F(Config, EnvironmentOverridesTheFile) {
    m_configVar.set(writeFile("kiv.conf", "datadir = /from/file\nscalingfactor = 4\n"));
    m_dataDirVar.set("/from/env");
    m_factorVar.set("0.5");
    const auto reader = config::loadDefault();
    EXPECT_EQ(reader->getSpecialDirectory(9), String(L"/from/env"));
    EXPECT_DOUBLE_EQ(reader->getScalingFactor(), 0.5);
}

TEST_F(Config, InvalidEnvironmentFactorKeepsTheFileValue) {
    m_configVar.set(writeFile("kiv.conf", "scalingfactor = 4\n"));
    m_factorVar.set("lots");
    EXPECT_DOUBLE_EQ(config::loadDefault()->getScalingFactor(), 4.0);
    EXPECT_EQ(warnings(), 1u);
}

TEST_F(Config, BadFileLinesAreSkippedWithAWarning) {
    m_configVar.set(writeFile("kiv.conf",
                              "this line has no equals sign\n"
                              "colour = blue\n"
                              "scalingfactor = many\n"
                              "datadir = /kept\n"));
    const auto reader = config::loadDefault();
    EXPECT_EQ(reader->getSpecialDirectory(9), String(L"/kept"));
    EXPECT_DOUBLE_EQ(reader->getScalingFactor(), 1.0);
    EXPECT_EQ(warnings(), 3u);
}

TEST_F(Config, MissingFileWarnsAndUsesTheDefaults) {
    m_configVar.set((m_dir / "does-not-exist.conf").string());
    const auto reader = config::loadDefault();
    EXPECT_EQ(reader->getSpecialDirectory(9), String::fromUtf8(KIV_TEST_BUILD_DATA_DIR));
    EXPECT_DOUBLE_EQ(reader->getScalingFactor(), 1.0);
    EXPECT_EQ(warnings(), 1u);
}

TEST_F(Config, SettingNoConfigurationGivesANullReader) {
    config::setCurrent(nullptr);
    EXPECT_EQ(config::getCurrent(), nullptr);
    const ConfigSnapshot snapshot;
    EXPECT_EQ(snapshot.getConfigReader(), nullptr);
    EXPECT_DOUBLE_EQ(config::getScalingFactor(), 1.0);
    EXPECT_EQ(config::getDataDirectory(), String());
}

TEST_F(Config, SnapshotSeesTheCurrentConfiguration) {
    config::setCurrent(std::make_shared<const ConfigReader>(std::map<int, String>{{9, String(L"/d")}}, 2.0));
    const ConfigSnapshot snapshot;
    ASSERT_NE(snapshot.getConfigReader(), nullptr);
    EXPECT_EQ(snapshot.getConfigReader()->getSpecialDirectory(9), String(L"/d"));
    EXPECT_DOUBLE_EQ(config::getScalingFactor(), 2.0);
    EXPECT_EQ(config::getDataDirectory(), String(L"/d"));
}

TEST_F(Config, SnapshotKeepsItsConfigurationAfterAChange) {
    config::setCurrent(std::make_shared<const ConfigReader>(std::map<int, String>{{9, String(L"/old")}}, 1.0));
    const ConfigSnapshot snapshot;
    config::setCurrent(std::make_shared<const ConfigReader>(std::map<int, String>{{9, String(L"/new")}}, 1.0));
    EXPECT_EQ(snapshot.getConfigReader()->getSpecialDirectory(9), String(L"/old"));
    EXPECT_EQ(ConfigSnapshot().getConfigReader()->getSpecialDirectory(9), String(L"/new"));
}

}  // namespace
}  // namespace kiv
