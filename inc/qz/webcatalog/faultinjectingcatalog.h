// FaultInjectingCatalog: a Catalog that forwards every call to another one,
// except the calls a test has chosen to fail.
//
// A fault names an operation and the number of its call (1-based, counted
// per operation since construction or the last resetCounts) and either
//   - answers a ReturnCode without calling the wrapped catalog,
//   - throws a copy of an exception (kept by clone(), thrown by throwMe(),
//     so its dynamic type is preserved where the class overrides throwMe), or
//   - runs a function first (it may throw; if it returns, the call goes on).
// A fault may cover one call or every call from the n-th on.
//
// Thread safety: calls may come from any thread; faults and counts are
// guarded by one mutex, which is not held while the wrapped catalog runs.
#pragma once

#include "qz/platform/export.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "qz/webcatalog/catalog.h"

namespace kiv::catalog {

class KIV_API FaultInjectingCatalog : public Catalog {
public:
    enum Operation { kDeleteObject = 0, kReadObject = 1, kWriteObject = 2, kGetItemInfo = 3 };
    static constexpr std::size_t kOperationCount = 4;

    explicit FaultInjectingCatalog(Catalog& inner) : m_inner(inner) {}

    // The n-th call of `op` (and with `andAfter` every later one) answers `code`.
    void failCall(Operation op, unsigned n, ReturnCode code, bool andAfter = false);
    // The n-th call of `op` throws a copy of `exception`.
    void throwOnCall(Operation op, unsigned n, const Exception& exception, bool andAfter = false);
    // The n-th call of `op` runs `action` first.
    void runOnCall(Operation op, unsigned n, std::function<void()> action, bool andAfter = false);
    // Removes every fault.
    void clearFaults();

    // Calls of `op` so far (failed ones included).
    unsigned callCount(Operation op) const;
    void resetCounts();

    Catalog& inner() noexcept { return m_inner; }

    ReturnCode deleteObject(const AccountToken& user, const Path& path) override;
    int getReaderUpgradeMode() const noexcept override { return m_inner.getReaderUpgradeMode(); }
    ReturnCode readObject(const AccountToken& user, const Path& path, Reader& reader, ItemInfo& info,
                          unsigned flags) override;
    ReturnCode writeObject(const AccountToken& user, const Path& path, Writer& writer,
                           const ReplaceHelper& replaceHelper) override;
    ReturnCode getItemInfo(const AccountToken& user, const Path& path, ItemInfo& info, bool bOriginalOnly,
                           bool bWithProperties) override;
    std::unique_ptr<ReadBatch> beginReadBatch() override { return m_inner.beginReadBatch(); }

private:
    struct Fault {
        Operation op;
        unsigned n;
        bool andAfter;
        ReturnCode code;
        std::shared_ptr<const Exception> exception;
        std::function<void()> action;
    };
    // Counts the call; runs the fault for it, if any. True (with `code`) when
    // the call is answered without the wrapped catalog.
    bool inject(Operation op, ReturnCode& code);

    Catalog& m_inner;
    mutable std::mutex m_mutex;
    std::vector<Fault> m_faults;
    std::array<unsigned, kOperationCount> m_counts{};
};

}  // namespace kiv::catalog
