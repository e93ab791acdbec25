// TimedCatalog: forwards every catalog call to another catalog and records
// its latency in the server's metrics. The managers of the server use it.
#pragma once

#include <chrono>

#include "metrics.h"
#include "qz/webcatalog/catalog.h"

namespace kiv::server {

class TimedCatalog final : public catalog::Catalog {
public:
    TimedCatalog(catalog::Catalog& inner, Metrics& metrics) : m_inner(inner), m_metrics(metrics) {}

    catalog::ReturnCode deleteObject(const AccountToken& user, const catalog::Path& path) override {
        return timed("deleteObject", [&] { return m_inner.deleteObject(user, path); });
    }
    int getReaderUpgradeMode() const noexcept override { return m_inner.getReaderUpgradeMode(); }
    catalog::ReturnCode readObject(const AccountToken& user, const catalog::Path& path, catalog::Reader& reader,
                                   catalog::ItemInfo& info, unsigned flags) override {
        return timed("readObject", [&] { return m_inner.readObject(user, path, reader, info, flags); });
    }
    catalog::ReturnCode writeObject(const AccountToken& user, const catalog::Path& path, catalog::Writer& writer,
                                    const catalog::ReplaceHelper& replaceHelper) override {
        return timed("writeObject", [&] { return m_inner.writeObject(user, path, writer, replaceHelper); });
    }
    catalog::ReturnCode getItemInfo(const AccountToken& user, const catalog::Path& path, catalog::ItemInfo& info,
                                    bool bOriginalOnly, bool bWithProperties) override {
        return timed("getItemInfo",
                     [&] { return m_inner.getItemInfo(user, path, info, bOriginalOnly, bWithProperties); });
    }
    std::unique_ptr<catalog::ReadBatch> beginReadBatch() override { return m_inner.beginReadBatch(); }

private:
    template <class F>
    catalog::ReturnCode timed(const char* op, F&& f) {
        const auto start = std::chrono::steady_clock::now();
        struct Record {
            Histogram& h;
            std::chrono::steady_clock::time_point start;
            ~Record() { h.observe(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()); }
        } record{m_metrics.catalogCall(op), start};
        return f();
    }

    catalog::Catalog& m_inner;
    Metrics& m_metrics;
};

}  // namespace kiv::server
