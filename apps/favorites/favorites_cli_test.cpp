// Tests of the favorites tool: each one runs the built binary as a user
// would, in a temporary directory of its own, and checks its exit status,
// its output (JSON output is parsed) and what it left in the catalog file.
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <random>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <simdjson.h>

#include "favoritesdocument.h"
#include "passwords.h"
#include "qz/webcatalog/sqlitecatalog.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using simdjson::dom::array;
using simdjson::dom::element;
using simdjson::dom::object;

constexpr const char* kTool = KIV_FAVORITES_TOOL;
const fs::path kTestData = KIV_CLI_TESTDATA;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

std::ostream& operator<<(std::ostream& os, const Result& r) {
    return os << "status " << r.status << "\n--- stdout\n" << r.out << "--- stderr\n" << r.err;
}

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeFile(const fs::path& p, const std::string& content) {
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << content;
}

class FavoritesTool : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/favorites-cli-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_dir = tmpl;
        m_catalog = (m_dir / "catalog.db").string();
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(m_dir, ec);
    }

    // Runs the tool in the test's directory with `args`, standard input from
    // `input`, and the environment of the test minus KIV_CATALOG and KIV_USER
    // plus `env` ("NAME=value" entries).
    Result runRaw(const std::vector<std::string>& args, const std::string& input = std::string(),
                  const std::vector<std::string>& env = {}) {
        const fs::path inFile = m_dir / ".stdin", outFile = m_dir / ".stdout", errFile = m_dir / ".stderr";
        writeFile(inFile, input);

        std::vector<std::string> envStrings;
        for (char** e = environ; *e; ++e) {
            const std::string entry(*e);
            if (entry.rfind("KIV_CATALOG=", 0) == 0 || entry.rfind("KIV_USER=", 0) == 0) continue;
            envStrings.push_back(entry);
        }
        envStrings.insert(envStrings.end(), env.begin(), env.end());
        std::vector<char*> envp;
        for (std::string& s : envStrings) envp.push_back(s.data());
        envp.push_back(nullptr);

        std::vector<std::string> argStrings = m_launcher;
        argStrings.push_back(kTool);
        argStrings.insert(argStrings.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& s : argStrings) argv.push_back(s.data());
        argv.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, inFile.c_str(), O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addchdir_np(&actions, m_dir.c_str());
        pid_t pid = 0;
        const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        Result r;
        if (rc != 0) {
            r.err = std::string("spawn failed: ") + std::strerror(rc);
            return r;
        }
        int wstatus = 0;
        while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
        }
        r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
        r.out = readFile(outFile);
        r.err = readFile(errFile);
        return r;
    }

    // Commands put before the tool's path (such as one that changes the user).
    std::vector<std::string> m_launcher;

    // Runs the tool on the test's catalog file.
    Result run(std::vector<std::string> args, const std::string& input = std::string()) {
        args.insert(args.begin(), {"--catalog", m_catalog});
        return runRaw(args, input);
    }
    Result as(const std::string& user, std::vector<std::string> args, const std::string& input = std::string()) {
        args.insert(args.begin(), {"--user", user});
        return run(args, input);
    }

    void makeDemo() {
        const Result r = run({"catalog", "demo"});
        ASSERT_EQ(r.status, 0) << r;
    }

    // Parses JSON output; the document lives until the next parse.
    element json(const Result& r) {
        m_json = simdjson::padded_string(r.out);
        return m_parser.parse(m_json);
    }

    // The user's tree in a short notation: a category as Name[ ... ], a
    // catalog object as its catalog path, separated by blanks.
    std::string tree(const std::string& user, std::vector<std::string> extra = {}) {
        extra.insert(extra.begin(), {"--json", "tree"});
        const Result r = as(user, extra);
        EXPECT_EQ(r.status, 0) << r;
        if (r.status != 0) return "<failed>";
        return notation(json(r)["items"].get_array());
    }

    static std::string notation(array items) {
        std::string out;
        for (element item : items) {
            if (!out.empty()) out += " ";
            const std::string_view type = item["type"].get_string();
            if (type == "category") {
                out += std::string(item["name"].get_string().value()) + "[";
                const std::string inner = notation(item["children"].get_array());
                out += inner.empty() ? "]" : " " + inner + " ]";
            } else {
                out += std::string(item["catalogPath"].get_string().value());
            }
        }
        return out;
    }

    // Stores `document` as the user's favorites object, as it is, through
    // the tool's raw catalog put.
    void storeFavoritesDocument(const std::string& user, const std::string& document) {
        const fs::path doc = m_dir / "document.xml";
        writeFile(doc, document);
        const Result r = run({"catalog", "put", "/users/" + user + "/favorites", "--signature", "mobilefavorites1",
                              "--body", doc.string()});
        ASSERT_EQ(r.status, 0) << r;
    }

    std::string stored(const std::string& path) {
        const Result r = run({"catalog", "cat", path});
        EXPECT_EQ(r.status, 0) << r;
        return r.out;
    }

    fs::path m_dir;
    std::string m_catalog;
    simdjson::dom::parser m_parser;
    simdjson::padded_string m_json;
};

const std::string kAliceDemoTree =
    "Sales[ /shared/Sales/Reports/Revenue by Region /shared/Sales/Dashboards/Sales Overview/Summary ] "
    "/shared/Common/Company KPIs";

// --- help and usage ---------------------------------------------------------

TEST_F(FavoritesTool, HelpIsShownOnEveryLevelAndExitsZero) {
    const std::vector<std::vector<std::string>> levels = {
        {},           {"tree"},      {"ls"},     {"is"},           {"add"},          {"mkcat"},
        {"rm"},       {"rmcat"},     {"export"}, {"replace-json"}, {"replace-soap"}, {"catalog"},
        {"catalog", "init"}, {"catalog", "demo"}, {"catalog", "mkdir"}, {"catalog", "put"},
        {"catalog", "link"}, {"catalog", "rm"},   {"catalog", "grant"}, {"catalog", "add-user"},
        {"catalog", "ls"},   {"catalog", "info"}, {"catalog", "cat"},
    };
    for (std::vector<std::string> args : levels) {
        std::string expected = "Usage: favorites";
        for (const std::string& a : args) expected += " " + a;
        args.push_back("--help");
        const Result r = runRaw(args);
        EXPECT_EQ(r.status, 0) << r;
        EXPECT_NE(r.out.find(expected), std::string::npos) << r;
    }
}

TEST_F(FavoritesTool, TopLevelHelpListsTheExitStatuses) {
    const Result r = runRaw({"--help"});
    ASSERT_EQ(r.status, 0) << r;
    for (const char* line : {"2   usage error", "3   catalog error", "4   input error", "10  kErrorItemAlreadyExists",
                             "15  kErrorItemNotFound", "17  kErrorInvalidFavoritesPath",
                             "19  kErrorInvalidFavoritesJson"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line;
}

TEST_F(FavoritesTool, UsageErrorsExitTwo) {
    makeDemo();
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"frobnicate"},
        {"tree", "--no-such-option"},
        {"--user", "alice", "add"},
        {"--user", "alice", "add", "relative/path"},
        {"--user", "alice", "is", "/shared//x"},
        {"--user", "alice", "mkcat", "   "},
        {"--user", "alice", "rm", "/shared/Common/Company KPIs", "--everywhere", "--category", "Sales"},
        {"--user", "alice", "rmcat", "/root"},
        {"--user", "alice", "export", "--format", "yaml"},
        {"--user", "", "tree"},
        {"tree"},
        {"catalog"},
        {"catalog", "grant", "/shared", "alice", "admin"},
        {"catalog", "put", "/shared/x"},
        {"catalog", "put", "/shared/x", "--signature", "report1", "--property", "novalue"},
    };
    for (const auto& args : bad) {
        const Result r = run(args);
        EXPECT_EQ(r.status, 2) << ::testing::PrintToString(args) << "\n" << r;
        EXPECT_FALSE(r.err.empty());
    }
}

TEST_F(FavoritesTool, ArgumentsThatAreNotUtf8AreRefusedClearly) {
    makeDemo();
    Result r = as("alice", {"add", "/shared/\xff\xfe"});
    EXPECT_EQ(r.status, 2) << r;
    EXPECT_NE(r.err.find("not valid UTF-8"), std::string::npos) << r;
    r = as("al\xc3", {"tree"});
    EXPECT_EQ(r.status, 2) << r;
    EXPECT_NE(r.err.find("--user is not valid UTF-8"), std::string::npos) << r;
}

// --- catalog file -------------------------------------------------------------

TEST_F(FavoritesTool, InitCreatesTheDefaultCatalogFileInTheCurrentDirectory) {
    const Result r = runRaw({"catalog", "init"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_TRUE(fs::exists(m_dir / "catalog.db"));
    const Result ls = runRaw({"--json", "catalog", "ls"});
    ASSERT_EQ(ls.status, 0) << ls;
    std::vector<std::string> paths;
    for (element e : json(ls)["entries"].get_array()) {
        paths.emplace_back(e["path"].get_string().value());
        EXPECT_EQ(std::string_view(e["type"].get_string()), "folder");
    }
    EXPECT_EQ(paths, (std::vector<std::string>{"/shared", "/users"}));
}

TEST_F(FavoritesTool, TheCatalogFileComesFromTheEnvironmentWhenNotGiven) {
    const std::string file = (m_dir / "fromenv.db").string();
    ASSERT_EQ(runRaw({"catalog", "demo"}, "", {"KIV_CATALOG=" + file}).status, 0);
    EXPECT_TRUE(fs::exists(file));
    EXPECT_FALSE(fs::exists(m_dir / "catalog.db"));
    const Result r = runRaw({"tree"}, "", {"KIV_CATALOG=" + file, "KIV_USER=alice"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_NE(r.out.find("Company KPIs -> /shared/Common/Company KPIs"), std::string::npos) << r;
}

TEST_F(FavoritesTool, AMissingCatalogFileIsReportedAndNotCreated) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--user", "alice", "tree"}, {"--user", "alice", "add", "/shared/x"}, {"catalog", "ls"},
             {"catalog", "mkdir", "/shared/x"}}) {
        const Result r = run(args);
        EXPECT_EQ(r.status, 3) << r;
        EXPECT_NE(r.err.find("kErrorCatalogNotFound"), std::string::npos) << r;
        EXPECT_NE(r.err.find(m_catalog), std::string::npos) << r;
        EXPECT_FALSE(fs::exists(m_catalog));
    }
}

TEST_F(FavoritesTool, ACorruptCatalogFileIsReportedAndLeftUntouched) {
    std::string garbage = "SQLite format 3";
    for (int i = 0; i < 4096; ++i) garbage += static_cast<char>((i * 7919) % 251);
    writeFile(m_catalog, garbage);
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--user", "alice", "tree"}, {"--user", "alice", "mkcat", "X"}, {"catalog", "ls"}, {"catalog", "demo"},
             {"catalog", "init"}}) {
        const Result r = run(args);
        EXPECT_EQ(r.status, 3) << r;
        EXPECT_NE(r.err.find("kErrorLoadingCatalog"), std::string::npos) << r;
        EXPECT_EQ(readFile(m_catalog), garbage);
    }
}

// --- demo and the mobile upgrade ------------------------------------------------

TEST_F(FavoritesTool, DemoWritesUsersContentAndFavorites) {
    const Result r = run({"--json", "catalog", "demo"});
    ASSERT_EQ(r.status, 0) << r;
    std::vector<std::string> users;
    for (element u : json(r)["users"].get_array()) users.emplace_back(u.get_string().value());
    EXPECT_EQ(users, (std::vector<std::string>{"alice", "bob", "carol", "dave", "admin"}));
    EXPECT_EQ(tree("alice"), kAliceDemoTree);
    EXPECT_EQ(tree("bob"), "Month end[ /shared/Finance/Reports/Profit and Loss /shared/Finance/Reports/Cash Flow ]");
    EXPECT_EQ(tree("carol"), "");
}

TEST_F(FavoritesTool, OldMobileFavoritesAreUpgradedOnFirstUseAndTheOldObjectDeleted) {
    makeDemo();
    Result ls = run({"--json", "catalog", "ls", "/users/dave"});
    ASSERT_EQ(ls.status, 0) << ls;
    ASSERT_EQ(json(ls)["entries"].get_array().size(), 1u);
    EXPECT_EQ(std::string_view(json(ls)["entries"].at(0)["path"].get_string()), "/users/dave/mobile-favoritelist");

    // The Cash Flow report is not readable by dave and is dropped.
    const std::string expected =
        "Mobile Favorites[ /shared/Sales/Reports/Pipeline /shared/Sales/Dashboards/Sales Overview/Regions ]";
    EXPECT_EQ(tree("dave"), expected);

    ls = run({"--json", "catalog", "ls", "/users/dave"});
    ASSERT_EQ(ls.status, 0) << ls;
    ASSERT_EQ(json(ls)["entries"].get_array().size(), 1u);
    EXPECT_EQ(std::string_view(json(ls)["entries"].at(0)["path"].get_string()), "/users/dave/favorites");
    EXPECT_NE(stored("/users/dave/favorites").find("Mobile Favorites"), std::string::npos);
    EXPECT_EQ(tree("dave"), expected);  // done once
}

// --- queries ----------------------------------------------------------------------

TEST_F(FavoritesTool, LsListsTheRootOrOneCategory) {
    makeDemo();
    Result r = as("alice", {"--json", "ls"});
    ASSERT_EQ(r.status, 0) << r;
    element doc = json(r);
    EXPECT_EQ(std::string_view(doc["category"].get_string()), "/root");
    array items = doc["items"].get_array();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(std::string_view(items.at(0)["type"].get_string()), "category");
    EXPECT_EQ(std::string_view(items.at(0)["favoritesPath"].get_string()), "/root/Sales");
    EXPECT_EQ(std::string_view(items.at(1)["type"].get_string()), "catalogObject");
    EXPECT_EQ(std::string_view(items.at(1)["name"].get_string()), "Company KPIs");
    EXPECT_EQ(std::string_view(items.at(1)["catalogPath"].get_string()), "/shared/Common/Company KPIs");

    for (const char* category : {"Sales", "/root/Sales", "Sales/"}) {
        r = as("alice", {"--json", "ls", category});
        ASSERT_EQ(r.status, 0) << r;
        items = json(r)["items"].get_array();
        ASSERT_EQ(items.size(), 2u) << category;
        EXPECT_EQ(std::string_view(items.at(0)["favoritesPath"].get_string()), "/root/Sales/Revenue by Region");
    }

    r = as("alice", {"ls", "Sales"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_NE(r.out.find("object    /root/Sales/Revenue by Region  -> /shared/Sales/Reports/Revenue by Region"),
              std::string::npos)
        << r;
}

TEST_F(FavoritesTool, LsFilterAdmitsOnlyMatchingObjects) {
    makeDemo();
    const Result r = as("alice", {"--json", "ls", "Sales", "--filter", "reports"});
    ASSERT_EQ(r.status, 0) << r;
    element doc = json(r);
    EXPECT_EQ(std::string_view(doc["filter"].get_string()), "reports");
    array items = doc["items"].get_array();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(std::string_view(items.at(0)["catalogPath"].get_string()), "/shared/Sales/Reports/Revenue by Region");
}

TEST_F(FavoritesTool, LsDashboardsFilterAdmitsDashboardPages) {
    makeDemo();
    const Result r = as("alice", {"--json", "ls", "Sales", "--filter", "dashboards"});
    ASSERT_EQ(r.status, 0) << r;
    array items = json(r)["items"].get_array();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(std::string_view(items.at(0)["catalogPath"].get_string()),
              "/shared/Sales/Dashboards/Sales Overview/Summary");
}

TEST_F(FavoritesTool, MkdirPropertyMarksADashboardFolder) {
    ASSERT_EQ(run({"catalog", "init"}).status, 0);
    Result r = run({"catalog", "mkdir", "/shared/Board", "--property", "compositeSignature=dashboardfolder1"});
    ASSERT_EQ(r.status, 0) << r;
    r = run({"--json", "catalog", "info", "/shared/Board"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(std::string_view(json(r)["type"].get_string()), "folder");
    EXPECT_EQ(std::string_view(json(r)["properties"]["compositeSignature"].get_string()), "dashboardfolder1");
    EXPECT_EQ(run({"catalog", "mkdir", "/shared/Bad", "--property", "novalue"}).status, 2);
}

TEST_F(FavoritesTool, LsOfAMissingCategoryFailsWithItsOwnStatus) {
    makeDemo();
    const Result r = as("alice", {"ls", "Nowhere"});
    EXPECT_EQ(r.status, 16) << r;
    EXPECT_NE(r.err.find("The item '/root/Nowhere' does not exist."), std::string::npos) << r;
    EXPECT_TRUE(r.out.empty());
}

TEST_F(FavoritesTool, IsAnswersOncePerPath) {
    makeDemo();
    Result r = as("alice", {"--json", "is", "/shared/Common/Company KPIs", "/shared/HR/Reports/Headcount",
                            "/shared/Sales/Dashboards/Sales Overview/Summary"});
    ASSERT_EQ(r.status, 0) << r;
    array results = json(r)["results"].get_array();
    ASSERT_EQ(results.size(), 3u);
    EXPECT_TRUE(results.at(0)["favorite"].get_bool().value());
    EXPECT_FALSE(results.at(1)["favorite"].get_bool().value());
    EXPECT_TRUE(results.at(2)["favorite"].get_bool().value());
    EXPECT_EQ(std::string_view(results.at(1)["path"].get_string()), "/shared/HR/Reports/Headcount");

    r = as("alice", {"is", "/shared/Common/Company KPIs", "/shared/HR/Reports/Headcount"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, "yes  /shared/Common/Company KPIs\nno   /shared/HR/Reports/Headcount\n");
}

// --- edits ------------------------------------------------------------------------

TEST_F(FavoritesTool, AddPutsACatalogObjectIntoACategoryAndStoresIt) {
    makeDemo();
    const Result r = as("alice", {"--json", "add", "/shared/Sales/Reports/Pipeline", "--category", "Sales"});
    ASSERT_EQ(r.status, 0) << r;
    element doc = json(r);
    EXPECT_EQ(std::string_view(doc["result"].get_string()), "kSuccess");
    EXPECT_EQ(std::string_view(doc["item"]["favoritesPath"].get_string()), "/root/Sales/Pipeline");
    EXPECT_NE(stored("/users/alice/favorites").find("catalogpath=\"/shared/Sales/Reports/Pipeline\""),
              std::string::npos);
    EXPECT_EQ(tree("alice"),
              "Sales[ /shared/Sales/Reports/Revenue by Region /shared/Sales/Dashboards/Sales Overview/Summary "
              "/shared/Sales/Reports/Pipeline ] /shared/Common/Company KPIs");
    const Result is = as("alice", {"is", "/shared/Sales/Reports/Pipeline"});
    EXPECT_EQ(is.out, "yes  /shared/Sales/Reports/Pipeline\n");
}

TEST_F(FavoritesTool, AddingTheSameFavoriteTwiceFailsWithItsStatusAndMessage) {
    makeDemo();
    const Result r = as("alice", {"add", "/shared/Common/Company KPIs"});
    EXPECT_EQ(r.status, 10) << r;
    EXPECT_NE(r.err.find("The favorite '/shared/Common/Company KPIs' already exists."), std::string::npos) << r;
    EXPECT_EQ(tree("alice"), kAliceDemoTree);
}

TEST_F(FavoritesTool, AddingToAMissingCategoryFails) {
    makeDemo();
    const Result r = as("alice", {"add", "/shared/Common/Holiday Calendar", "--category", "Nowhere"});
    EXPECT_EQ(r.status, 17) << r;
    EXPECT_NE(r.err.find("The favorites path '/root/Nowhere' is not valid."), std::string::npos) << r;
    EXPECT_EQ(tree("alice"), kAliceDemoTree);
}

TEST_F(FavoritesTool, AFavoriteInAFolderTheUserMayNotReadIsAnsweredAsIfItDidNotExist) {
    makeDemo();
    const Result existing = as("alice", {"add", "/shared/HR/Reports/Headcount"});
    const Result missing = as("alice", {"add", "/shared/HR/Reports/No Such Report"});
    EXPECT_EQ(existing.status, missing.status) << existing << missing;
    EXPECT_NE(existing.err.find("kErrorPathNotFound"), std::string::npos) << existing;
    EXPECT_NE(missing.err.find("kErrorPathNotFound"), std::string::npos) << missing;
    // The folder itself is listed in /shared, which alice may read.
    const Result folder = as("alice", {"add", "/shared/HR"});
    EXPECT_NE(folder.err.find("kErrorAccessDenied"), std::string::npos) << folder;
}

TEST_F(FavoritesTool, AFavoriteOfAnObjectTheUserMayNotReadIsRefused) {
    makeDemo();
    const std::string before = stored("/users/alice/favorites");
    const Result r = as("alice", {"add", "/shared/HR/Reports/Headcount"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.err.find("kErrorPathNotFound"), std::string::npos) << r;
    EXPECT_NE(r.err.find("/shared/HR/Reports/Headcount"), std::string::npos) << r;
    EXPECT_EQ(stored("/users/alice/favorites"), before);
    // carol is in hr and may.
    EXPECT_EQ(as("carol", {"add", "/shared/HR/Reports/Headcount"}).status, 0);
    EXPECT_EQ(tree("carol"), "/shared/HR/Reports/Headcount");
}

TEST_F(FavoritesTool, AFavoriteOfAMissingObjectIsRefused) {
    makeDemo();
    const Result r = as("alice", {"add", "/shared/Common/Gone"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.err.find("kErrorPathNotFound at '/shared/Common/Gone'"), std::string::npos) << r;
}

TEST_F(FavoritesTool, MkcatMakesNestedCategories) {
    makeDemo();
    Result r = as("alice", {"--json", "mkcat", "Q1 Review", "--category", "Sales"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(std::string_view(json(r)["item"]["favoritesPath"].get_string()), "/root/Sales/Q1 Review");
    EXPECT_EQ(std::string_view(json(r)["item"]["type"].get_string()), "category");
    ASSERT_EQ(as("alice", {"add", "/shared/Sales/Reports/Pipeline", "--category", "Sales/Q1 Review"}).status, 0);
    EXPECT_EQ(tree("alice"),
              "Sales[ /shared/Sales/Reports/Revenue by Region /shared/Sales/Dashboards/Sales Overview/Summary "
              "Q1 Review[ /shared/Sales/Reports/Pipeline ] ] /shared/Common/Company KPIs");

    r = as("alice", {"mkcat", "Q1 Review", "--category", "/root/Sales"});
    EXPECT_EQ(r.status, 10) << r;
    EXPECT_NE(r.err.find("The favorite '/root/Sales/Q1 Review' already exists."), std::string::npos) << r;
    r = as("alice", {"mkcat", "Deep", "--category", "Nowhere"});
    EXPECT_EQ(r.status, 17) << r;
}

TEST_F(FavoritesTool, RmRemovesFromOneCategory) {
    makeDemo();
    Result r = as("alice", {"--json", "rm", "/shared/Sales/Reports/Revenue by Region", "--category", "Sales"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(std::string_view(json(r)["category"].get_string()), "/root/Sales");
    EXPECT_EQ(tree("alice"),
              "Sales[ /shared/Sales/Dashboards/Sales Overview/Summary ] /shared/Common/Company KPIs");
    EXPECT_EQ(as("alice", {"is", "/shared/Sales/Reports/Revenue by Region"}).out,
              "no   /shared/Sales/Reports/Revenue by Region\n");

    // Not in the root: not found there.
    r = as("alice", {"rm", "/shared/Sales/Dashboards/Sales Overview/Summary"});
    EXPECT_EQ(r.status, 15) << r;
    EXPECT_NE(r.err.find("does not exist"), std::string::npos) << r;
    r = as("alice", {"rm", "/shared/Common/Company KPIs", "--category", "Nowhere"});
    EXPECT_EQ(r.status, 17) << r;
}

TEST_F(FavoritesTool, RmEverywhereRemovesFromEveryCategory) {
    makeDemo();
    ASSERT_EQ(as("alice", {"add", "/shared/Common/Company KPIs", "--category", "Sales"}).status, 0);
    ASSERT_EQ(as("alice", {"mkcat", "Deeper", "--category", "Sales"}).status, 0);
    ASSERT_EQ(as("alice", {"add", "/shared/Common/Company KPIs", "--category", "Sales/Deeper"}).status, 0);
    const Result r = as("alice", {"rm", "/shared/Common/Company KPIs", "--everywhere"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(tree("alice"),
              "Sales[ /shared/Sales/Reports/Revenue by Region /shared/Sales/Dashboards/Sales Overview/Summary "
              "Deeper[] ]");
    EXPECT_EQ(as("alice", {"is", "/shared/Common/Company KPIs"}).out, "no   /shared/Common/Company KPIs\n");
    EXPECT_EQ(as("alice", {"rm", "/shared/Common/Company KPIs", "--everywhere"}).status, 15);
}

TEST_F(FavoritesTool, RmcatRemovesACategoryWithItsContent) {
    makeDemo();
    Result r = as("alice", {"--json", "rmcat", "Sales"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(std::string_view(json(r)["category"].get_string()), "/root/Sales");
    EXPECT_EQ(tree("alice"), "/shared/Common/Company KPIs");
    EXPECT_EQ(as("alice", {"is", "/shared/Sales/Reports/Revenue by Region"}).out,
              "no   /shared/Sales/Reports/Revenue by Region\n");
    r = as("alice", {"rmcat", "Sales"});
    EXPECT_EQ(r.status, 15) << r;
    EXPECT_NE(r.err.find("The item '/root/Sales' does not exist."), std::string::npos) << r;
}

// --- replacement and export -----------------------------------------------------------

TEST_F(FavoritesTool, ReplaceJsonReplacesTheWholeTreeFromAFileOrStandardInput) {
    makeDemo();
    Result r = as("alice", {"--json", "replace-json", (kTestData / "replace.json").string()});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(json(r)["categories"].get_int64().value(), 2);
    EXPECT_EQ(json(r)["catalogObjects"].get_int64().value(), 3);
    EXPECT_EQ(tree("alice"),
              "Weekly[ /shared/Sales/Reports/Pipeline Dashboards[ /shared/Sales/Dashboards/Sales Overview/Trends ] ] "
              "/shared/Common/Holiday Calendar");

    r = as("alice", {"replace-json", "-"}, R"([{"type":"0","path":"/shared/Common/Company KPIs"}])");
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(tree("alice"), "/shared/Common/Company KPIs");
    EXPECT_EQ(as("alice", {"is", "/shared/Sales/Reports/Pipeline"}).out, "no   /shared/Sales/Reports/Pipeline\n");

    r = as("alice", {"replace-json", "-"}, "[]");
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(tree("alice"), "");
}

TEST_F(FavoritesTool, ReplaceJsonRefusesBadInputAndKeepsTheFavorites) {
    makeDemo();
    const std::string before = stored("/users/alice/favorites");
    struct Case {
        std::string input;
        int status;
        const char* message;
    };
    const std::vector<Case> cases = {
        {"not json at all", 4, "not JSON text"},
        // A valid JSON array past the JSON reader's limits is named for the
        // limit, not called something other than a JSON array.
        {std::string(600, '[') + std::string(600, ']'), 4, "nested deeper than 512 levels"},
        {"[\"" + std::string(17u * 1024u * 1024u, 'x') + "\"]", 4, "larger than 16 MiB"},
        {R"({"type":"0","path":"/shared/Common/Company KPIs"})", 4, "not a JSON array"},
        {"[{\"type\":\"1\",\"name\":\"Bad\xff\"}]", 4, "not valid UTF-8"},
        {R"([{"type":"0","path":"/shared/Common/Company KPIs"},{"type":"0","path":"/shared/Common/Company KPIs"}])",
         10, "already exists"},
        {R"([{"path":"/shared/Common/Company KPIs"}])", 19, "not valid"},
    };
    for (const Case& c : cases) {
        const Result r = as("alice", {"replace-json", "-"}, c.input);
        EXPECT_EQ(r.status, c.status) << c.input.substr(0, 80) << "\n" << r;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r;
        EXPECT_EQ(stored("/users/alice/favorites"), before);
    }
    const Result missing = as("alice", {"replace-json", (m_dir / "nope.json").string()});
    EXPECT_EQ(missing.status, 4) << missing;
    EXPECT_NE(missing.err.find("cannot read"), std::string::npos) << missing;
}

TEST_F(FavoritesTool, ReplaceSoapReplacesTheWholeTree) {
    makeDemo();
    Result r = as("alice", {"--json", "replace-soap", (kTestData / "replace-soap.xml").string()});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(json(r)["categories"].get_int64().value(), 1);
    EXPECT_EQ(tree("alice"), "Team[ /shared/Sales/Reports/Top Customers ] /shared/Common/Company KPIs");

    r = as("alice", {"replace-soap", "-"}, readFile(kTestData / "replace-soap.xml"));
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(tree("alice"), "Team[ /shared/Sales/Reports/Top Customers ] /shared/Common/Company KPIs");
}

TEST_F(FavoritesTool, ReplaceSoapRefusesWhatIsNotAnEnvelope) {
    makeDemo();
    const std::string before = stored("/users/alice/favorites");
    for (const std::string& input : {std::string("<favorites/>"), std::string("[1,2]"), std::string("<a><b></a>")}) {
        const Result r = as("alice", {"replace-soap", "-"}, input);
        EXPECT_EQ(r.status, 4) << r;
        EXPECT_NE(r.err.find("SOAP"), std::string::npos) << r;
    }
    EXPECT_EQ(stored("/users/alice/favorites"), before);
}

TEST_F(FavoritesTool, ExportWritesXmlOrTheJsonThatReplaceJsonReads) {
    makeDemo();
    Result r = as("alice", {"export"});
    ASSERT_EQ(r.status, 0) << r;
    // The stored document itself, byte for byte.
    EXPECT_EQ(r.out, stored("/users/alice/favorites"));
    EXPECT_NE(r.out.find("favoritelist xmlns=\"urn:kiv-web:favorites/v1\">"), std::string::npos) << r;
    EXPECT_NE(r.out.find("<favorite xmlns=\"\" name=\"Sales\" type=\"category\">"), std::string::npos) << r;
    EXPECT_NE(r.out.find("<favorite xmlns=\"\" name=\"Company KPIs\" catalogpath=\"/shared/Common/Company KPIs\" "
                         "type=\"catalogitem\"/>"),
              std::string::npos)
        << r;

    r = as("alice", {"export", "--format", "json"});
    ASSERT_EQ(r.status, 0) << r;
    array items = json(r).get_array();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(std::string_view(items.at(0)["type"].get_string()), "1");
    EXPECT_EQ(std::string_view(items.at(0)["name"].get_string()), "Sales");
    EXPECT_EQ(items.at(0)["children"].get_array().size(), 2u);
    EXPECT_EQ(std::string_view(items.at(1)["type"].get_string()), "0");
    EXPECT_EQ(std::string_view(items.at(1)["path"].get_string()), "/shared/Common/Company KPIs");
    EXPECT_EQ(as("alice", {"--json", "export"}).out, r.out);

    // Alice's export read back as carol's favorites (carol may read Sales and Common).
    ASSERT_EQ(as("carol", {"replace-json", "-"}, r.out).status, 0);
    EXPECT_EQ(tree("carol"), kAliceDemoTree);
    EXPECT_EQ(as("carol", {"export", "--format", "json"}).out, r.out);
}

// --- access rights on favorites objects ----------------------------------------------------

TEST_F(FavoritesTool, AnotherUsersFavoritesCanNeitherBeReadNorChanged) {
    makeDemo();
    const std::string before = stored("/users/bob/favorites");
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--favorites", "/users/bob/favorites", "tree"},
             {"--favorites", "/users/bob/favorites", "export"},
             {"--favorites", "/users/bob/favorites", "is", "/shared/Common/Company KPIs"},
             {"--favorites", "/users/bob/favorites", "add", "/shared/Common/Company KPIs"},
             {"--favorites", "/users/bob/favorites", "replace-json", "-"},
             {"--favorites", "/users/bob/newfavorites", "tree"}}) {
        const Result r = as("alice", args, "[]");
        EXPECT_EQ(r.status, 3) << r;
        EXPECT_NE(r.err.find("kErrorAccessDenied"), std::string::npos) << r;
        EXPECT_NE(r.err.find("'/users/bob"), std::string::npos) << r;
        EXPECT_TRUE(r.out.empty()) << r;
    }
    EXPECT_EQ(stored("/users/bob/favorites"), before);
    EXPECT_EQ(run({"catalog", "ls", "/users/bob"}).out.find("newfavorites"), std::string::npos);
}

TEST_F(FavoritesTool, ReadableButNotWritableFavoritesCanBeReadButNotChanged) {
    makeDemo();
    ASSERT_EQ(run({"catalog", "grant", "/users/bob", "alice", "read"}).status, 0);
    const std::string before = stored("/users/bob/favorites");
    // Read with alice's rights: the finance reports are not hers to see.
    EXPECT_EQ(tree("alice", {"--favorites", "/users/bob/favorites"}), "Month end[]");
    const Result r = as("alice", {"--favorites", "/users/bob/favorites", "mkcat", "Mine"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.err.find("kErrorAccessDenied"), std::string::npos) << r;
    EXPECT_EQ(stored("/users/bob/favorites"), before);
}

TEST_F(FavoritesTool, AUserWithoutAHomeFolderGetsACatalogError) {
    makeDemo();
    const Result r = as("zed", {"tree"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.err.find("kErrorPathNotFound at '/users/zed'"), std::string::npos) << r;
}

// --- catalog administration -----------------------------------------------------------

TEST_F(FavoritesTool, AddUserMakesAHomeWhereTheFavoritesAreCreatedOnFirstUse) {
    ASSERT_EQ(run({"catalog", "init"}).status, 0);
    Result r = run({"--json", "catalog", "add-user", "erin", "--group", "sales", "--group", "hr"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(std::string_view(json(r)["home"].get_string()), "/users/erin");
    EXPECT_EQ(json(r)["groups"].get_array().size(), 2u);
    r = as("erin", {"tree"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, "(no favorites)\n");
    r = run({"--json", "catalog", "info", "/users/erin/favorites"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(std::string_view(json(r)["signature"].get_string()), "mobilefavorites1");
}

TEST_F(FavoritesTool, CatalogCommandsBuildAndShowItems) {
    ASSERT_EQ(run({"catalog", "init"}).status, 0);
    ASSERT_EQ(run({"catalog", "mkdir", "/shared/Ops"}).status, 0);
    Result r = run({"catalog", "put", "/shared/Ops/Uptime", "--signature", "report1", "--property", "owner=ops team",
                    "--body", "-"},
                   "<report>uptime</report>");
    ASSERT_EQ(r.status, 0) << r;
    ASSERT_EQ(run({"catalog", "link", "/shared/Ops/Latest", "/shared/Ops/Uptime"}).status, 0);

    r = run({"catalog", "cat", "/shared/Ops/Uptime"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, "<report>uptime</report>");

    r = run({"--json", "catalog", "info", "/shared/Ops/Uptime"});
    ASSERT_EQ(r.status, 0) << r;
    element info = json(r);
    EXPECT_EQ(std::string_view(info["type"].get_string()), "object");
    EXPECT_EQ(std::string_view(info["signature"].get_string()), "report1");
    EXPECT_EQ(std::string_view(info["properties"]["owner"].get_string()), "ops team");
    EXPECT_GT(info["modified"].get_int64().value(), 0);

    r = run({"--json", "catalog", "info", "/shared/Ops/Latest"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(std::string_view(json(r)["type"].get_string()), "link");
    EXPECT_EQ(std::string_view(json(r)["target"].get_string()), "/shared/Ops/Uptime");

    r = run({"--json", "catalog", "ls", "/shared", "--recursive"});
    ASSERT_EQ(r.status, 0) << r;
    std::vector<std::string> listed;
    for (element e : json(r)["entries"].get_array()) listed.emplace_back(e["path"].get_string().value());
    EXPECT_EQ(listed, (std::vector<std::string>{"/shared/Ops", "/shared/Ops/Latest", "/shared/Ops/Uptime"}));

    ASSERT_EQ(run({"catalog", "rm", "/shared/Ops/Latest"}).status, 0);
    r = run({"catalog", "info", "/shared/Ops/Latest"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.err.find("kErrorPathNotFound"), std::string::npos) << r;
    EXPECT_EQ(run({"catalog", "rm", "/shared/Ops/Latest"}).status, 3);
    EXPECT_EQ(run({"catalog", "cat", "/shared/Nope"}).status, 3);
}

TEST_F(FavoritesTool, GrantChangesWhatAUserMayReadAndAdd) {
    makeDemo();
    Result r = run({"--json", "--user", "alice", "catalog", "info", "/shared/HR/Reports/Headcount"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(std::string_view(json(r)["rights"].get_string()), "none");

    ASSERT_EQ(run({"catalog", "grant", "/shared/HR/Reports/Headcount", "alice", "read"}).status, 0);
    r = run({"--json", "--user", "alice", "catalog", "info", "/shared/HR/Reports/Headcount"});
    EXPECT_EQ(std::string_view(json(r)["rights"].get_string()), "read");
    EXPECT_EQ(as("alice", {"add", "/shared/HR/Reports/Headcount"}).status, 0);

    // Denied again: the favorite drops out of the tree on the next load.
    ASSERT_EQ(run({"catalog", "grant", "/shared/HR/Reports/Headcount", "alice", "none"}).status, 0);
    EXPECT_EQ(tree("alice"), kAliceDemoTree);
}

TEST_F(FavoritesTool, DemoCanBeRunAgainAndRestoresTheMobileObject) {
    makeDemo();
    ASSERT_EQ(as("dave", {"tree"}).status, 0);
    makeDemo();
    const Result ls = run({"catalog", "ls", "/users/dave"});
    EXPECT_NE(ls.out.find("/users/dave/mobile-favoritelist"), std::string::npos) << ls;
    EXPECT_EQ(tree("alice"), kAliceDemoTree);
}

// --- passwords ----------------------------------------------------------------

TEST_F(FavoritesTool, PasswdStoresAnArgon2idHashOfTheFirstInputLine) {
    makeDemo();
    const Result r = run({"catalog", "passwd", "carol"}, "s3cret word\nignored\n");
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, "set the password of carol\n");
    kiv::catalog::SqliteCatalog c(m_catalog);
    const std::string hash = c.passwordHash(L"carol");
    EXPECT_EQ(hash.rfind("$argon2id$", 0), 0u) << hash;
    EXPECT_TRUE(kiv::host::verifyPassword(hash, "s3cret word"));
    EXPECT_FALSE(kiv::host::verifyPassword(hash, "s3cret word\n"));
}

TEST_F(FavoritesTool, DemoUsersSignInWithTheDemoPassword) {
    makeDemo();
    kiv::catalog::SqliteCatalog c(m_catalog);
    for (const wchar_t* user : {L"alice", L"bob", L"carol", L"dave", L"admin"})
        EXPECT_TRUE(kiv::host::verifyPassword(c.passwordHash(user), "demo"));
}

TEST_F(FavoritesTool, PasswdRefusesAnUnknownUserAndAnEmptyPassword) {
    makeDemo();
    const Result unknown = run({"catalog", "passwd", "zoe"}, "pw\n");
    EXPECT_EQ(unknown.status, 2) << unknown;
    EXPECT_NE(unknown.err.find("no user zoe"), std::string::npos) << unknown;
    const Result empty = run({"catalog", "passwd", "carol"}, "\n");
    EXPECT_EQ(empty.status, 4) << empty;
    EXPECT_NE(empty.err.find("no password"), std::string::npos) << empty;
    const Result notUtf8 = run({"catalog", "passwd", "carol"}, "\xff\xfe\n");
    EXPECT_EQ(notUtf8.status, 2) << notUtf8;
    kiv::catalog::SqliteCatalog c(m_catalog);
    EXPECT_TRUE(kiv::host::verifyPassword(c.passwordHash(L"carol"), "demo"));
}

TEST_F(FavoritesTool, OnlyInitAndDemoTurnAnEmptyFileIntoACatalog) {
    writeFile(m_catalog, "");
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"catalog", "ls"}, {"catalog", "mkdir", "/x"}, {"--user", "alice", "tree"}}) {
        const Result r = run(args);
        EXPECT_EQ(r.status, 3) << r;
        EXPECT_NE(r.err.find("kErrorLoadingCatalog"), std::string::npos) << r;
        EXPECT_EQ(readFile(m_catalog), "");
    }
    const Result init = run({"catalog", "init"});
    EXPECT_EQ(init.status, 0) << init;
    EXPECT_EQ(run({"catalog", "ls"}).status, 0);
}

}  // namespace

// --- history and unreadable favorites ------------------------------------------

namespace {

// A favorites document that parses and validates but holds a category name
// the catalog refuses (a TAB, written as a character reference): the load
// stops at it.
const char* const kUnreadableFavorites =
    "<favoritelist xmlns=\"urn:kiv-web:favorites/v1\">"
    "<favorite name=\"a&#9;b\" type=\"category\"/></favoritelist>";

TEST_F(FavoritesTool, ExportXmlOfStoredFavoritesThatDoNotLoadIsTheStoredDocument) {
    makeDemo();
    ASSERT_NO_FATAL_FAILURE(storeFavoritesDocument("alice", kUnreadableFavorites));
    // The tree shows as empty; the export gives what is stored, to be mended.
    EXPECT_EQ(tree("alice"), "");
    const Result r = as("alice", {"export"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, kUnreadableFavorites);
}

TEST_F(FavoritesTool, EveryChangeKeepsTheVersionItReplacesAndHistoryListsThem) {
    makeDemo();
    ASSERT_EQ(as("alice", {"mkcat", "Month end"}).status, 0);
    ASSERT_EQ(as("alice", {"rmcat", "Month end"}).status, 0);
    const Result r = as("alice", {"--json", "history"});
    ASSERT_EQ(r.status, 0) << r;
    auto versions = json(r)["versions"].get_array();
    std::vector<std::int64_t> numbers;
    std::vector<std::int64_t> categories;
    for (element v : versions) {
        numbers.push_back(v["version"].get_int64());
        categories.push_back(v["categories"].get_int64());
        EXPECT_TRUE(v["readable"].get_bool().value());
    }
    // The demo's tree (1 category), then the tree with "Month end" (2).
    EXPECT_EQ(numbers, (std::vector<std::int64_t>{2, 1}));
    EXPECT_EQ(categories, (std::vector<std::int64_t>{2, 1}));
    const Result text = as("alice", {"history"});
    EXPECT_NE(text.out.find("2 categories, 3 catalog objects"), std::string::npos) << text;
}

TEST_F(FavoritesTool, RestorePutsAVersionBackAndCanItselfBeUndone) {
    makeDemo();
    const std::string demoTree = tree("alice");
    ASSERT_EQ(as("alice", {"replace-json", "-"}, "[]").status, 0);
    EXPECT_EQ(tree("alice"), "");
    const Result r = as("alice", {"restore", "1"});
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_NE(r.out.find("restored version 1"), std::string::npos) << r;
    EXPECT_EQ(tree("alice"), demoTree);
    // The empty tree the restore replaced is version 2: undo the restore.
    ASSERT_EQ(as("alice", {"restore", "2"}).status, 0);
    EXPECT_EQ(tree("alice"), "");
}

TEST_F(FavoritesTool, RestoringAVersionThatIsNotKeptFailsAndChangesNothing) {
    makeDemo();
    const std::string before = stored("/users/alice/favorites");
    const Result r = as("alice", {"restore", "7"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.err.find("kErrorPathNotFound"), std::string::npos) << r;
    EXPECT_EQ(stored("/users/alice/favorites"), before);
}

TEST_F(FavoritesTool, KeepVersionsBoundsTheHistoryAndZeroKeepsNone) {
    makeDemo();
    for (const char* name : {"A", "B", "C", "D"}) ASSERT_EQ(as("alice", {"--keep-versions", "2", "mkcat", name}).status, 0);
    const Result r = as("alice", {"--json", "history"});
    EXPECT_EQ(json(r)["versions"].get_array().size(), 2u) << r;
    ASSERT_EQ(as("bob", {"--keep-versions", "0", "mkcat", "X"}).status, 0);
    ASSERT_EQ(as("bob", {"--keep-versions", "0", "mkcat", "Y"}).status, 0);
    const Result none = as("bob", {"history"});
    EXPECT_NE(none.out.find("no earlier versions"), std::string::npos) << none;
}

TEST_F(FavoritesTool, StoredFavoritesThatDoNotLoadAreReportedAndCanBeRestoredAfterAChangeStoredOverThem) {
    makeDemo();
    const std::string demoTree = tree("alice");
    ASSERT_NO_FATAL_FAILURE(storeFavoritesDocument("alice", kUnreadableFavorites));
    const Result shown = as("alice", {"tree"});
    EXPECT_EQ(shown.status, 0) << shown;
    EXPECT_NE(shown.err.find("warning: the stored favorites at /users/alice/favorites cannot be read"),
              std::string::npos)
        << shown;
    EXPECT_NE(shown.err.find("kItemNameControlCharacter"), std::string::npos) << shown;
    EXPECT_NE(shown.err.find("favorites history"), std::string::npos) << shown;
    // The lenient library stores its (empty) tree over them at the next change...
    ASSERT_EQ(as("alice", {"mkcat", "New"}).status, 0);
    EXPECT_EQ(tree("alice"), "New[]");
    // ...and nothing is lost: the history has both the unreadable document
    // and the demo's tree before it.
    const Result h = as("alice", {"history"});
    EXPECT_NE(h.out.find("2  "), std::string::npos) << h;
    EXPECT_NE(h.out.find("cannot be read: it holds a name or path the catalog refuses"), std::string::npos) << h;
    const Result refused = as("alice", {"restore", "2"});
    EXPECT_EQ(refused.status, 4) << refused;
    EXPECT_NE(refused.err.find("cannot be read either"), std::string::npos) << refused;
    ASSERT_EQ(as("alice", {"restore", "1"}).status, 0);
    EXPECT_EQ(tree("alice"), demoTree);
    const Result clean = as("alice", {"tree"});
    EXPECT_EQ(clean.err, "") << clean;
}

TEST_F(FavoritesTool, ADocumentInADeclaredSingleByteEncodingLoads) {
    makeDemo();
    ASSERT_NO_FATAL_FAILURE(storeFavoritesDocument(
        "alice",
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
        "<favoritelist xmlns=\"urn:kiv-web:favorites/v1\"><favorite name=\"Caf\xE9\" type=\"category\">"
        "<favorite name=\"x\" catalogpath=\"/shared/Common/Company KPIs\" type=\"catalogitem\"/>"
        "</favorite></favoritelist>"));
    EXPECT_EQ(tree("alice"), "Caf\xC3\xA9[ /shared/Common/Company KPIs ]");
}

TEST_F(FavoritesTool, TheDeepestTreeTheJsonInputTakesIsStoredAndReadBackWhole) {
    makeDemo();
    // Each level is an object in the children array of the one above; the
    // JSON reader takes 512 levels of nesting, so 255 categories and the
    // array around them, with a sibling after the deepest chain.
    std::string text = "[";
    constexpr int kDepth = 255;
    for (int n = 0; n < kDepth; ++n) text += "{\"type\":\"1\",\"name\":\"c" + std::to_string(n) + "\",\"children\":[";
    text += "{\"type\":\"0\",\"path\":\"/shared/Common/Company KPIs\"}";
    for (int n = 0; n < kDepth; ++n) text += "]}";
    text += ",{\"type\":\"1\",\"name\":\"Keep\",\"children\":[]}]";
    const Result r = as("alice", {"replace-json", "-"}, text);
    ASSERT_EQ(r.status, 0) << r;
    const Result shown = as("alice", {"--json", "tree"});
    EXPECT_EQ(shown.err, "") << shown;
    const std::string t = tree("alice");
    EXPECT_NE(t.find("c254[ /shared/Common/Company KPIs ]"), std::string::npos);
    EXPECT_NE(t.find("Keep[]"), std::string::npos);
    EXPECT_TRUE(as("alice", {"is", "/shared/Common/Company KPIs"}).status == 0);
}

TEST_F(FavoritesTool, TheLargestJsonTheReaderTakesIsStoredAndReadBackEqual) {
    makeDemo();
    // Categories, each holding a catalog object, up to one byte short of
    // the JSON reader's 16 MiB; the export reads back the same text.
    const std::string last = ",{\"type\":\"1\",\"name\":\"C0000000\",\"children\":[{\"type\":\"0\",\"path\":\"/shared/Common/Company KPIs\"}]}";
    std::string text = "[";
    int n = 0;
    char name[16];
    while (text.size() + last.size() + 1 < 16u * 1024u * 1024u) {
        std::snprintf(name, sizeof name, "C%07d", n);
        if (n++) text += ",";
        text += std::string("{\"type\":\"1\",\"name\":\"") + name +
                "\",\"children\":[{\"type\":\"0\",\"path\":\"/shared/Common/Company KPIs\"}]}";
    }
    text += "]";
    ASSERT_LT(text.size(), 16u * 1024u * 1024u);
    ASSERT_GT(text.size(), 16u * 1024u * 1024u - last.size() - 1);
    const Result r = as("alice", {"replace-json", "-"}, text);
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_NE(r.out.find(std::to_string(n) + " categories, " + std::to_string(n) + " catalog objects"), std::string::npos) << r;
    const Result exported = as("alice", {"export", "--format", "json"});
    EXPECT_EQ(exported.err, "");
    EXPECT_TRUE(exported.out == text + "\n") << "the export differs from the input";
}

// A SOAP updateFavorites envelope around `items`.
std::string soapEnvelope(const std::string& items) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
           "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "xmlns:fav=\"urn:kiv:favorites\"><SOAP-ENV:Body><fav:updateFavorites>" +
           items + "</fav:updateFavorites></SOAP-ENV:Body></SOAP-ENV:Envelope>";
}

std::string soapCategoryOpen(const std::string& name, const std::string& path) {
    return "<favoriteItem><name>" + name + "</name><path>" + path + "</path><type>1</type>";
}

std::string soapObject(const std::string& name, const std::string& path, const std::string& catalogPath) {
    return "<favoriteItem><name>" + name + "</name><path>" + path + "</path><type>0</type><catalogPath>" +
           catalogPath + "</catalogPath></favoriteItem>";
}

// Categories c0 > c1 > ... nested `depth` deep around a catalog object, and
// a sibling category Keep after them.
std::string deepSoap(int depth) {
    std::string items, path = "/root";
    for (int n = 0; n < depth; ++n) {
        path += "/c" + std::to_string(n);
        items += soapCategoryOpen("c" + std::to_string(n), path);
    }
    items += soapObject("Company KPIs", path + "/Company KPIs", "/shared/Common/Company KPIs");
    for (int n = 0; n < depth; ++n) items += "</favoriteItem>";
    items += soapCategoryOpen("Keep", "/root/Keep") + "</favoriteItem>";
    return soapEnvelope(items);
}

TEST_F(FavoritesTool, TheDeepestTreeTheSoapInputTakesIsStoredAndReadBackWhole) {
    makeDemo();
    // Of the 128 levels the request reader takes, Envelope, Body and the
    // operation are three, each category is one more, and the catalog
    // object inside the deepest one two (its item and the item's fields).
    constexpr int kDepth = 123;
    const Result r = as("alice", {"replace-soap", "-"}, deepSoap(kDepth));
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_EQ(as("alice", {"tree"}).err, "");
    const std::string t = tree("alice");
    EXPECT_NE(t.find("c" + std::to_string(kDepth - 1) + "[ /shared/Common/Company KPIs ]"), std::string::npos) << t;
    EXPECT_NE(t.find("Keep[]"), std::string::npos);
    // One level deeper is refused before anything is replaced.
    const Result deeper = as("alice", {"replace-soap", "-"}, deepSoap(kDepth + 1));
    EXPECT_EQ(deeper.status, 4) << deeper;
    EXPECT_NE(deeper.err.find("deeper than 128 levels"), std::string::npos) << deeper;
    EXPECT_EQ(tree("alice"), t);
}

TEST_F(FavoritesTool, TheLargestSoapEnvelopeTheReaderTakesIsStoredAndReadBackWhole) {
    makeDemo();
    // Categories each holding a catalog object, up to the request reader's
    // 8 MiB.
    std::string items;
    int n = 0;
    const std::size_t room = 8u * 1024u * 1024u - soapEnvelope("").size();
    for (;;) {
        const std::string name = "S" + std::to_string(n);
        const std::string item = soapCategoryOpen(name, "/root/" + name) +
                                 soapObject("Company KPIs", "/root/" + name + "/Company KPIs", "/shared/Common/Company KPIs") +
                                 "</favoriteItem>";
        if (items.size() + item.size() > room) break;
        items += item;
        ++n;
    }
    const std::string envelope = soapEnvelope(items);
    ASSERT_LE(envelope.size(), 8u * 1024u * 1024u);
    const Result r = as("alice", {"replace-soap", "-"}, envelope);
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_NE(r.out.find(std::to_string(n) + " categories, " + std::to_string(n) + " catalog objects"), std::string::npos) << r;
    // Read back by a fresh process: every category, in order, whole.
    const Result exported = as("alice", {"export", "--format", "json"});
    EXPECT_EQ(exported.err, "");
    std::string expected = "[";
    for (int i = 0; i < n; ++i)
        expected += std::string(i ? "," : "") + "{\"type\":\"1\",\"name\":\"S" + std::to_string(i) +
                    "\",\"children\":[{\"type\":\"0\",\"path\":\"/shared/Common/Company KPIs\"}]}";
    expected += "]\n";
    EXPECT_TRUE(exported.out == expected) << "the export differs from the envelope's tree";
    // A byte more than the reader takes is refused with the reason.
    const Result larger = as("alice", {"replace-soap", "-"}, envelope + std::string(8u * 1024u * 1024u - envelope.size() + 1, ' '));
    EXPECT_EQ(larger.status, 4) << larger;
    EXPECT_EQ(as("alice", {"export", "--format", "json"}).out, expected);
}

TEST_F(FavoritesTool, FavoritesPointingAtAnObjectOfAnotherKindAreNeverWrittenOverIt) {
    makeDemo();
    const std::string report = stored("/shared/Common/Company KPIs");
    const Result r = as("admin", {"--favorites", "/shared/Common/Company KPIs", "mkcat", "X"});
    EXPECT_NE(r.status, 0) << r;
    EXPECT_NE(r.err.find("kErrorObjectTypeMismatch"), std::string::npos) << r;
    EXPECT_EQ(stored("/shared/Common/Company KPIs"), report);
}

}  // namespace

// --- messages that name the real cause, escaping, check and backup -------------

namespace {

class FavoritesToolFiles : public FavoritesTool {
protected:
    // Runs the next commands subject to file permissions. Root is not, so a
    // test running as root runs the tool as root without the capabilities
    // that override them (which also works where the build lies in a
    // directory only root may enter).
    void permissionsApply() {
        if (::geteuid() == 0) m_launcher = {"setpriv", "--bounding-set=-dac_override,-dac_read_search"};
    }
    std::vector<std::string> filesIn(const fs::path& dir) {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(FavoritesToolFiles, AReadOnlyCatalogFileIsReportedAsReadOnlyAndNothingIsLeftBesideIt) {
    const fs::path dir = m_dir / "ro";
    fs::create_directory(dir);
    const std::string file = (dir / "catalog.db").string();
    ASSERT_EQ(runRaw({"--catalog", file, "catalog", "demo"}).status, 0);
    const std::string before = readFile(file);
    ::chmod(file.c_str(), 0444);
    permissionsApply();
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--user", "alice", "tree"}, {"--user", "alice", "mkcat", "X"}, {"catalog", "ls", "/"}}) {
        std::vector<std::string> full{"--catalog", file};
        full.insert(full.end(), args.begin(), args.end());
        const Result r = runRaw(full);
        EXPECT_EQ(r.status, 3) << r;
        EXPECT_NE(r.err.find("kErrorCatalogReadOnly"), std::string::npos) << r;
        EXPECT_NE(r.err.find("read-only for this user"), std::string::npos) << r;
        EXPECT_EQ(r.err.find("not a catalog"), std::string::npos) << r;
        EXPECT_EQ(filesIn(dir), std::vector<std::string>{"catalog.db"});
    }
    EXPECT_EQ(readFile(file), before);
}

TEST_F(FavoritesToolFiles, ACatalogInADirectoryTheUserCannotWriteIsReportedForTheDirectory) {
    const fs::path dir = m_dir / "rodir";
    fs::create_directory(dir);
    const std::string file = (dir / "catalog.db").string();
    ASSERT_EQ(runRaw({"--catalog", file, "catalog", "demo"}).status, 0);
    ::chmod(dir.c_str(), 0555);
    permissionsApply();
    const Result r = runRaw({"--catalog", file, "--user", "alice", "tree"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.err.find("kErrorCatalogReadOnly"), std::string::npos) << r;
    EXPECT_NE(r.err.find("directory \"" + dir.string() + "\" is not writable"), std::string::npos) << r;
    EXPECT_EQ(r.err.find("not a catalog"), std::string::npos) << r;
    ::chmod(dir.c_str(), 0755);
}

TEST_F(FavoritesToolFiles, AFileThatIsNotACatalogIsNamedSoAndADirectoryIsNamedSo) {
    writeFile(m_catalog, "just text\n");
    Result r = run({"catalog", "ls", "/"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.err.find("file is not a database"), std::string::npos) << r;
    r = runRaw({"--catalog", m_dir.string(), "catalog", "ls", "/"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.err.find("it is a directory"), std::string::npos) << r;
}

// Writes garbage over one page in the middle of a demo catalog.
void damagePage(const std::string& file, int page) {
    std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(4096L * page);
    const std::string junk(4096, '\xde');
    f.write(junk.data(), static_cast<std::streamsize>(junk.size()));
}

TEST_F(FavoritesToolFiles, InitOrDemoOnADamagedCatalogIsRefusedAndLeavesItAsItIs) {
    makeDemo();
    damagePage(m_catalog, 3);
    const std::string damaged = readFile(m_catalog);
    for (const char* command : {"init", "demo"}) {
        const Result r = run({"catalog", command});
        EXPECT_EQ(r.status, 3) << r;
        EXPECT_NE(r.err.find("the file is damaged"), std::string::npos) << r;
        EXPECT_EQ(r.out.find("initialised"), std::string::npos) << r;
        EXPECT_EQ(readFile(m_catalog), damaged);
    }
}

TEST_F(FavoritesToolFiles, CatalogCheckSaysOkForASoundFileAndNamesTheDamageOfADamagedOne) {
    makeDemo();
    Result r = run({"catalog", "check"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, "ok\n");
    damagePage(m_catalog, 3);
    r = run({"--json", "catalog", "check"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.out.find("\"result\":\"damaged\""), std::string::npos) << r;
    EXPECT_NE(r.out.find("Page 4"), std::string::npos) << r;
}

TEST_F(FavoritesToolFiles, FavoritesTheStoreFailsToReadAreWarnedAboutNotShownAsSilentlyEmpty) {
    makeDemo();
    // The fourth page of the demo catalog holds the objects' bodies.
    damagePage(m_catalog, 3);
    const Result r = as("alice", {"tree"});
    EXPECT_NE(r.err.find("warning: the stored favorites at /users/alice/favorites cannot be read (the catalog "
                         "could not read it: kErrorIO"),
              std::string::npos)
        << r;
}

TEST_F(FavoritesToolFiles, ControlCharactersFromArgumentsAndTheCatalogAreEscapedOnTheTerminal) {
    makeDemo();
    Result r = run({"catalog", "put", "/shared/Common/Escapes", "--signature", "report1", "--property",
                    "title=\x1b[2Jcleared\rover"});
    ASSERT_EQ(r.status, 0) << r;
    r = run({"catalog", "info", "/shared/Common/Escapes"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out.find('\x1b'), std::string::npos) << r;
    EXPECT_EQ(r.out.find('\r'), std::string::npos) << r;
    EXPECT_NE(r.out.find("title=\\x1b[2Jcleared\\x0dover"), std::string::npos) << r;
    // JSON output stays JSON: the writer escapes control characters itself.
    r = run({"--json", "catalog", "info", "/shared/Common/Escapes"});
    EXPECT_NE(r.out.find("\\u001b[2Jcleared\\rover"), std::string::npos) << r;
    // An argument quoted in an error message.
    r = as("alice", {"add", "/shared/\x1b]0;title\x07"});
    EXPECT_EQ(r.status, 2) << r;
    EXPECT_EQ(r.err.find('\x1b'), std::string::npos) << r;
    EXPECT_NE(r.err.find("\\x1b]0;title\\x07"), std::string::npos) << r;
    // And one that the argument parser itself complains about.
    r = as("alice", {"tree", "unexpected\x1b[31m"});
    EXPECT_EQ(r.status, 2) << r;
    EXPECT_EQ(r.err.find('\x1b'), std::string::npos) << r;
    // A C1 control (CSI, U+009B) is escaped too.
    r = as("alice", {"add", "/shared/\xc2\x9b" "31m"});
    EXPECT_EQ(r.err.find("\xc2\x9b"), std::string::npos) << r;
    EXPECT_NE(r.err.find("\\u009b31m"), std::string::npos) << r;
}

TEST_F(FavoritesToolFiles, BackupCopiesTheCatalogWhileAWriterGoesOnAndTheCopyIsOneConsistentSnapshot) {
    makeDemo();
    constexpr int kObjects = 1000;
    std::atomic<bool> started{false};
    std::thread writer([&] {
        kiv::catalog::SqliteCatalog c(m_catalog);
        for (int i = 0; i < kObjects; ++i) {
            c.putObject(kiv::catalog::Path(kiv::String::fromUtf8("/shared/Common/w" + std::to_string(i))), L"report1", {},
                        std::string(2000, 'x'));
            started = true;
        }
    });
    while (!started) std::this_thread::yield();
    std::vector<std::string> backups;
    for (int i = 0; i < 5; ++i) {
        backups.push_back((m_dir / ("backup" + std::to_string(i) + ".db")).string());
        const Result r = run({"catalog", "backup", backups.back()});
        EXPECT_EQ(r.status, 0) << r;
    }
    writer.join();
    int previous = 0;
    for (const std::string& b : backups) {
        const Result check = runRaw({"--catalog", b, "catalog", "check"});
        EXPECT_EQ(check.status, 0) << check;
        // The writer's objects in the copy are exactly its first N: a snapshot
        // between two of its commits.
        kiv::catalog::SqliteCatalog copy(b);
        int present = 0;
        while (present < kObjects &&
               copy.exists(kiv::catalog::Path(kiv::String::fromUtf8("/shared/Common/w" + std::to_string(present)))))
            ++present;
        for (int i = present; i < kObjects; ++i)
            EXPECT_FALSE(copy.exists(kiv::catalog::Path(kiv::String::fromUtf8("/shared/Common/w" + std::to_string(i)))))
                << b << " holds w" << i << " but not w" << present;
        EXPECT_GE(present, previous);
        if (b == backups.front()) {
            EXPECT_LT(present, kObjects) << "the first backup did not overlap the writer";
        }
        previous = present;
        const Result copied = runRaw({"--catalog", b, "--user", "alice", "--json", "tree"});
        const Result original = as("alice", {"--json", "tree"});
        EXPECT_EQ(copied.status, 0) << copied;
        EXPECT_EQ(copied.out, original.out);
    }
}

TEST_F(FavoritesToolFiles, BackupNeverOverwritesAFileAndLeavesNoPartialCopy) {
    makeDemo();
    const fs::path target = m_dir / "taken.db";
    writeFile(target, "mine");
    Result r = run({"catalog", "backup", target.string()});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_NE(r.err.find("never overwrites"), std::string::npos) << r;
    EXPECT_EQ(readFile(target), "mine");
    r = run({"catalog", "backup", (m_dir / "missing-dir" / "b.db").string()});
    EXPECT_EQ(r.status, 3) << r;
    for (const std::string& name : filesIn(m_dir)) EXPECT_EQ(name.find(".partial"), std::string::npos) << name;
}

}  // namespace

// --- a writer killed at any moment ------------------------------------------------

namespace {

class FavoritesToolCrash : public FavoritesTool {
protected:
    // Starts the tool on the test's catalog in the background, its output
    // thrown away; in a process group of its own, so that a shell and every
    // tool it started can be killed together.
    pid_t start(const std::vector<std::string>& args, const char* program = kTool) {
        std::vector<std::string> argStrings{program};
        if (program == kTool) argStrings.insert(argStrings.end(), {"--catalog", m_catalog});
        argStrings.insert(argStrings.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& a : argStrings) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addchdir_np(&actions, m_dir.c_str());
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
        posix_spawnattr_setpgroup(&attr, 0);
        pid_t pid = 0;
        const int rc = posix_spawnp(&pid, argv[0], &actions, &attr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
        EXPECT_EQ(rc, 0) << std::strerror(rc);
        return pid;
    }
    static int wait(pid_t pid) {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return status;
    }
    // Kills the process group of `pid` after `delay` and waits until every
    // process of it is gone; true when `pid` was killed before it ended by
    // itself. A tool started by a shell is reparented to this process (a
    // subreaper, see SetUp) when the shell dies, so it is waited for too: a
    // killed process may still finish the write it was in, and nothing may
    // be checked before that.
    static bool killAfter(pid_t pid, std::chrono::microseconds delay) {
        std::this_thread::sleep_for(delay);
        ::kill(-pid, SIGKILL);
        bool killed = false;
        for (;;) {
            int status = 0;
            const pid_t done = waitpid(-pid, &status, 0);
            if (done < 0 && errno == EINTR) continue;
            if (done < 0) break;  // ECHILD: the whole group is gone
            if (done == pid) killed = WIFSIGNALED(status);
        }
        return killed;
    }
    void SetUp() override {
        FavoritesTool::SetUp();
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    }

    struct Stored {
        std::string body;
        std::vector<std::string> versions;  // the kept bodies, newest first
    };
    Stored stored() {
        kiv::catalog::SqliteCatalog c(m_catalog);
        Stored s;
        const kiv::catalog::Path path(kiv::String(L"/users/alice/favorites"));
        s.body = c.readRaw(path);
        const kiv::AccountToken alice = c.tokenFor(L"alice");
        for (const auto& v : c.versions(alice, path)) {
            std::string body;
            c.readVersion(alice, path, v.number, body);
            s.versions.push_back(body);
        }
        return s;
    }
    std::string integrity() { return kiv::catalog::SqliteCatalog(m_catalog).integrityCheck(); }

    // After a kill: the catalog is sound and the stored favorites load.
    // Either the write did not happen (the favorites and the history are
    // as before) or it did (the history is the one before with the
    // favorites before on top, the oldest pruned past the count kept).
    void expectWholeAfterKill(const Stored& before, const std::string& where, bool* wrote) {
        EXPECT_EQ(integrity(), "ok") << where;
        const Stored after = stored();
        const kiv::host::FavoritesDocumentCheck check = kiv::host::checkFavoritesDocument(after.body);
        EXPECT_TRUE(check.readable()) << where << ": " << check.problem;
        *wrote = after.versions != before.versions;
        if (!*wrote) {
            EXPECT_TRUE(after.body == before.body) << where << ": the favorites changed without a version kept";
            return;
        }
        std::vector<std::string> expected = before.versions;
        expected.insert(expected.begin(), before.body);
        if (expected.size() > kKept) expected.resize(kKept);
        EXPECT_TRUE(after.versions == expected) << where << ": the history is not the one before with the replaced "
                                                           "favorites on top";
    }

    static constexpr std::size_t kKept = 20;
};

// A JSON tree of `n` categories named PREFIX0.., each holding a catalog object.
std::string bigTree(const std::string& prefix, int n) {
    std::string json = "[";
    for (int i = 0; i < n; ++i) {
        if (i) json += ",";
        json += R"({"type":"1","name":")" + prefix + std::to_string(i) +
                R"(","children":[{"type":"0","path":"/shared/Common/Company KPIs"}]})";
    }
    return json + "]";
}

TEST_F(FavoritesToolCrash, AWriterKilledDuringLargeReplacementsLeavesTheOldOrTheNewTreeWholeAndTheHistoryIntact) {
    makeDemo();
    const std::vector<std::string> files = {(m_dir / "a.json").string(), (m_dir / "b.json").string()};
    writeFile(files[0], bigTree("A", 3000));
    writeFile(files[1], bigTree("B", 4000));
    // How long one replacement of a large tree by another takes
    // uninterrupted, to spread the kills over it and a little past it.
    ASSERT_EQ(as("alice", {"replace-json", files[0]}).status, 0);
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(wait(start({"--user", "alice", "replace-json", files[1]})), 0);
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0);
    std::mt19937 random(20261124);
    std::uniform_int_distribution<long> delay(0, took.count() * 5 / 4);
    int killed = 0, writtenBeforeKill = 0;
    for (int i = 0; i < 40; ++i) {
        const Stored before = stored();
        const long us = delay(random);
        const bool wasKilled = killAfter(start({"--user", "alice", "replace-json", files[i % 2]}), std::chrono::microseconds(us));
        killed += wasKilled;
        bool wrote = false;
        expectWholeAfterKill(before, "run " + std::to_string(i) + ", killed after " + std::to_string(us) + " us", &wrote);
        writtenBeforeKill += wasKilled && wrote;
        // The tree is whole: one of the two inputs, all of it.
        const std::string t = tree("alice");
        const bool a = t.rfind("A0[", 0) == 0;
        EXPECT_TRUE(a || t.rfind("B0[", 0) == 0) << t.substr(0, 80);
        EXPECT_NE(t.find(a ? "A2999[" : "B3999["), std::string::npos) << "run " << i << ": the tree is not whole";
        EXPECT_EQ(t.find(a ? "A3000[" : "B4000["), std::string::npos) << "run " << i;
    }
    // The kills fell while the tool was running (most before its commit; a
    // few, two or three in 40 here, between its commit and its exit).
    EXPECT_GE(killed, 10);
    RecordProperty("killed", killed);
    RecordProperty("writtenBeforeKill", writtenBeforeKill);
}

TEST_F(FavoritesToolCrash, AWriterKilledDuringASeriesOfEditsLeavesEveryEditWholeAndTheHistoryIntact) {
    makeDemo();
    ASSERT_EQ(as("alice", {"replace-json", "-"}, "[]").status, 0);
    std::mt19937 random(11242026);
    std::uniform_int_distribution<long> delay(0, 400000);
    int made = 0;
    for (int i = 0; i < 12; ++i) {
        const Stored before = stored();
        // A series of edits, each a process of its own, killed with the shell.
        std::string script;
        for (int k = 0; k < 20; ++k)
            script += std::string("\"") + kTool + "\" --catalog \"" + m_catalog + "\" --user alice mkcat E" +
                      std::to_string(made + k) + " && ";
        script += "true";
        const long us = delay(random);
        killAfter(start({"-c", script}, "/bin/sh"), std::chrono::microseconds(us));
        EXPECT_EQ(integrity(), "ok") << "series " << i;
        const Stored after = stored();
        EXPECT_TRUE(kiv::host::checkFavoritesDocument(after.body).readable()) << "series " << i;
        // The categories are E0..En with no gap: each edit stored whole or not at all.
        const Result r = as("alice", {"--json", "ls"});
        ASSERT_EQ(r.status, 0) << r;
        int n = 0;
        for (auto item : json(r)["items"].get_array()) {
            EXPECT_EQ(std::string(std::string_view(item["name"].get_string())), "E" + std::to_string(n)) << "series " << i;
            ++n;
        }
        EXPECT_GE(n, made);
        // Every version kept loads; each edit stored put one on top, and the
        // versions before are all still there under them (past the count
        // kept, the oldest pruned).
        for (const std::string& v : after.versions)
            EXPECT_TRUE(kiv::host::checkFavoritesDocument(v).readable()) << "series " << i;
        const std::size_t added = static_cast<std::size_t>(n - made);
        std::vector<std::string> kept = before.versions;
        if (added > 0) kept.insert(kept.begin(), before.body);
        const std::size_t under = added > 0 ? added - 1 : 0;
        ASSERT_GE(after.versions.size(), std::min(kKept, under + kept.size())) << "series " << i;
        for (std::size_t k = 0; k + under < kKept && k < kept.size(); ++k)
            EXPECT_EQ(after.versions[under + k], kept[k]) << "series " << i << ", version " << k;
        made = n;
    }
    EXPECT_GT(made, 0);
}

}  // namespace
