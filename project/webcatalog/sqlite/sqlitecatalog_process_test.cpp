// Several processes on one catalog file: modified times and crash safety.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "qz/webcatalog/sqlitecatalog.h"
#include "webcatalog/conformance/catalogtestsupport.h"

namespace kiv::catalog {
namespace {

using testing::RecordingWriter;
using testing::TempDir;

const AccountToken kAdmin(L"root", {L"administrators"});

// Runs `work` in a child process; the child ends with _exit(status of work).
template <class F>
pid_t spawn(F&& work) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        int status = 1;
        try {
            status = work();
        } catch (...) {
            status = 2;
        }
        ::_exit(status);
    }
    return pid;
}

int waitFor(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status;
}

TEST(SqliteCatalogProcessTest, TwoProcessesWritingOneObjectGetDistinctIncreasingTimes) {
    TempDir dir;
    const std::string file = dir.file("c.db");
    { SqliteCatalog(file).putObject(Path(L"/shared/favorites"), L"test1", {}, "start"); }
    constexpr int kWrites = 40;
    int pipes[2][2];
    std::vector<pid_t> children;
    for (int child = 0; child < 2; ++child) {
        ASSERT_EQ(::pipe(pipes[child]), 0);
        children.push_back(spawn([&, child] {
            ::close(pipes[child][0]);
            SqliteCatalog c(file);
            RecordingWriter w("from child " + std::to_string(child));
            for (int n = 0; n < kWrites; ++n) {
                if (c.writeObject(kAdmin, Path(L"/shared/favorites"), w, tDefaultReplaceHelper) != kSuccess) return 3;
                const Time t = w.written.getLastModifiedTime(kInfoResolved);
                if (::write(pipes[child][1], &t, sizeof t) != sizeof t) return 4;
            }
            ::close(pipes[child][1]);
            return 0;
        }));
        ::close(pipes[child][1]);
    }
    std::vector<std::vector<Time>> times(2);
    for (int child = 0; child < 2; ++child) {
        Time t;
        while (::read(pipes[child][0], &t, sizeof t) == sizeof t) times[child].push_back(t);
        ::close(pipes[child][0]);
    }
    for (pid_t pid : children) {
        const int status = waitFor(pid);
        ASSERT_TRUE(WIFEXITED(status));
        ASSERT_EQ(WEXITSTATUS(status), 0);
    }
    std::set<Time> all;
    for (const auto& own : times) {
        ASSERT_EQ(own.size(), static_cast<std::size_t>(kWrites));
        EXPECT_TRUE(std::is_sorted(own.begin(), own.end()));
        EXPECT_EQ(std::adjacent_find(own.begin(), own.end()), own.end());
        all.insert(own.begin(), own.end());
    }
    EXPECT_EQ(all.size(), static_cast<std::size_t>(2 * kWrites));
    SqliteCatalog c(file);
    ItemInfo info;
    ASSERT_EQ(c.getItemInfo(kAdmin, Path(L"/shared/favorites"), info, false, true), kSuccess);
    EXPECT_EQ(info.getLastModifiedTime(kInfoResolved), *all.rbegin());
}

TEST(SqliteCatalogProcessTest, AWriterKilledMidWriteLeavesTheOldOrTheNewObjectWhole) {
    TempDir dir;
    const std::string file = dir.file("c.db");
    constexpr std::size_t kSize = 2 * 1024 * 1024;
    auto bodyFor = [](int n) { return std::string(kSize, static_cast<char>('a' + n % 26)); };
    { SqliteCatalog(file).putObject(Path(L"/big"), L"test1", {}, bodyFor(0)); }
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        const pid_t pid = spawn([&] {
            SqliteCatalog c(file);
            RecordingWriter w("");
            for (int n = 1;; ++n) {
                w.setBody(bodyFor(n));
                c.writeObject(kAdmin, Path(L"/big"), w, tDefaultReplaceHelper);
            }
            return 0;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(150 + 70 * round));
        ::kill(pid, SIGKILL);
        const int status = waitFor(pid);
        ASSERT_TRUE(WIFSIGNALED(status));
        SqliteCatalog c(file);
        EXPECT_EQ(c.integrityCheck(), "ok");
        const std::string body = c.readRaw(Path(L"/big"));
        ASSERT_EQ(body.size(), kSize);
        EXPECT_EQ(body.find_first_not_of(body[0]), std::string::npos);
        ItemInfo info;
        EXPECT_EQ(c.getItemInfo(kAdmin, Path(L"/big"), info, false, true), kSuccess);
    }
}

TEST(SqliteCatalogProcessTest, AWriteLockHeldByAProcessThatIsKilledIsReleased) {
    TempDir dir;
    const std::string file = dir.file("c.db");
    { SqliteCatalog(file).putObject(Path(L"/users/u/favorites"), L"test1", {}, "start"); }
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = spawn([&] {
        ::close(ready[0]);
        SqliteCatalog c(file);
        std::unique_ptr<WriteLock> lock = c.lockForWriting(Path(L"/users/u/favorites"));
        const char byte = 'L';
        if (::write(ready[1], &byte, 1) != 1) return 3;
        ::pause();  // holds the lock until killed
        return 0;
    });
    ::close(ready[1]);
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    SqliteCatalog c(file);
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        std::unique_ptr<WriteLock> lock = c.lockForWriting(Path(L"/users/u/favorites"));
        got = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(got) << "the lock was not held by the other process";
    ::kill(child, SIGKILL);
    waitFor(child);
    waiter.join();
    EXPECT_TRUE(got);
}

}  // namespace
}  // namespace kiv::catalog
