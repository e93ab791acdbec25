// FaultInjectingCatalog: forwards calls, failing the chosen ones.
#include "qz/webcatalog/faultinjectingcatalog.h"

namespace kiv::catalog {

void FaultInjectingCatalog::failCall(Operation op, unsigned n, ReturnCode code, bool andAfter) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.push_back(Fault{op, n, andAfter, code, nullptr, nullptr});
}

void FaultInjectingCatalog::throwOnCall(Operation op, unsigned n, const Exception& exception, bool andAfter) {
    std::shared_ptr<const Exception> copy(exception.clone());
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.push_back(Fault{op, n, andAfter, kSuccess, std::move(copy), nullptr});
}

void FaultInjectingCatalog::runOnCall(Operation op, unsigned n, std::function<void()> action, bool andAfter) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.push_back(Fault{op, n, andAfter, kSuccess, nullptr, std::move(action)});
}

void FaultInjectingCatalog::clearFaults() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.clear();
}

unsigned FaultInjectingCatalog::callCount(Operation op) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_counts[op];
}

void FaultInjectingCatalog::resetCounts() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_counts.fill(0);
}

bool FaultInjectingCatalog::inject(Operation op, ReturnCode& code) {
    std::shared_ptr<const Exception> exception;
    std::function<void()> action;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const unsigned call = ++m_counts[op];
        const Fault* fault = nullptr;
        for (const Fault& f : m_faults)
            if (f.op == op && (f.n == call || (f.andAfter && call > f.n))) {
                fault = &f;
                break;
            }
        if (!fault) return false;
        if (!fault->exception && !fault->action) {
            code = fault->code;
            return true;
        }
        exception = fault->exception;
        action = fault->action;
    }
    if (exception) exception->throwMe();
    action();
    return false;
}

ReturnCode FaultInjectingCatalog::deleteObject(const AccountToken& user, const Path& path) {
    ReturnCode code = kSuccess;
    if (inject(kDeleteObject, code)) return code;
    return m_inner.deleteObject(user, path);
}

ReturnCode FaultInjectingCatalog::readObject(const AccountToken& user, const Path& path, Reader& reader,
                                             ItemInfo& info, unsigned flags) {
    ReturnCode code = kSuccess;
    if (inject(kReadObject, code)) return code;
    return m_inner.readObject(user, path, reader, info, flags);
}

ReturnCode FaultInjectingCatalog::writeObject(const AccountToken& user, const Path& path, Writer& writer,
                                              const ReplaceHelper& replaceHelper) {
    ReturnCode code = kSuccess;
    if (inject(kWriteObject, code)) return code;
    return m_inner.writeObject(user, path, writer, replaceHelper);
}

ReturnCode FaultInjectingCatalog::getItemInfo(const AccountToken& user, const Path& path, ItemInfo& info,
                                              bool bOriginalOnly, bool bWithProperties) {
    ReturnCode code = kSuccess;
    if (inject(kGetItemInfo, code)) return code;
    return m_inner.getItemInfo(user, path, info, bOriginalOnly, bWithProperties);
}

}  // namespace kiv::catalog
