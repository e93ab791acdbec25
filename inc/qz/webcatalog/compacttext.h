// catalog::CompactText: the immutable, reference-counted text behind Path
// and ItemName.
//
// A text is kept in one of two forms, chosen when it is made: one byte per
// character when every character is at most U+00FF (the common case for
// catalog names and paths), else four bytes per character. The form is
// canonical: a text whose characters all fit in a byte is always kept narrow,
// so two equal texts always have the same form. Equality, the order (by code
// point, each character taken as a signed 32-bit wide character, as
// std::wstring orders) and every character-level operation give the same
// results as on the wide text. Copies share the buffer.
//
// Thread safety: an immutable value; copies may cross threads.
#pragma once

#include "qz/platform/export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "qz/platform/string.h"


namespace kiv::catalog {

class KIV_API CompactText {
public:
    using Narrow = std::span<const unsigned char>;
    using Wide = std::span<const wchar_t>;

    CompactText() noexcept = default;  // the empty text
    explicit CompactText(std::wstring_view text) : m_rep(makeFrom(text.data(), text.size())) {}
    explicit CompactText(Narrow text) : m_rep(makeFrom(text.data(), text.size())) {}
    explicit CompactText(Wide text) : m_rep(makeFrom(text.data(), text.size())) {}
    // Decodes UTF-8 with the strict codec (raises Utf8Error); ASCII and
    // Latin-1 text is stored without a wide intermediate.
    static CompactText fromUtf8(std::string_view utf8);

    CompactText(const CompactText& o) noexcept : m_rep(o.m_rep) { acquire(m_rep); }
    CompactText(CompactText&& o) noexcept : m_rep(o.m_rep) { o.m_rep = nullptr; }
    CompactText& operator=(const CompactText& o) noexcept {
        acquire(o.m_rep);
        release(m_rep);
        m_rep = o.m_rep;
        return *this;
    }
    CompactText& operator=(CompactText&& o) noexcept {
        if (this != &o) {
            release(m_rep);
            m_rep = o.m_rep;
            o.m_rep = nullptr;
        }
        return *this;
    }
    ~CompactText() { release(m_rep); }

    std::size_t size() const noexcept { return m_rep ? m_rep->bits >> kFlagBits : 0; }
    bool empty() const noexcept { return m_rep == nullptr; }
    // True when some character is above U+00FF (four bytes per character).
    bool isWide() const noexcept { return m_rep && (m_rep->bits & kWideFlag); }
    // True when every character is below U+0080.
    bool isAscii() const noexcept { return !m_rep || (m_rep->bits & kAsciiFlag); }
    // True when both share one buffer (copies of each other).
    bool sharesStorageWith(const CompactText& o) const noexcept { return m_rep == o.m_rep; }

    wchar_t operator[](std::size_t i) const noexcept {
        return isWide() ? wide()[i] : static_cast<wchar_t>(narrow()[i]);
    }

    // Calls f with the characters as a Narrow or a Wide span and returns its
    // result. Generic code over both forms goes through here.
    template <class F>
    decltype(auto) visit(F&& f) const {
        return isWide() ? f(Wide(wide(), size())) : f(Narrow(narrow(), size()));
    }

    // The characters [pos, pos + n), in canonical form (a wide text's piece
    // may be narrow).
    CompactText substr(std::size_t pos, std::size_t n) const;

    // Makes a text of `size` characters in the given form and lets `fill`
    // write them: fill(unsigned char*) for narrow, fill(wchar_t*) for wide.
    // The caller guarantees the form is canonical: wide only when some
    // character written is above U+00FF.
    template <class Fill>
    static CompactText build(std::size_t size, bool wide, Fill&& fill) {
        CompactText t;
        if (size == 0) return t;
        t.m_rep = allocate(size, wide);
        if (wide)
            fill(reinterpret_cast<wchar_t*>(t.m_rep + 1));
        else
            fill(reinterpret_cast<unsigned char*>(t.m_rep + 1));
        t.m_rep->bits |= computeAscii(t.m_rep) ? kAsciiFlag : 0;
        return t;
    }

    String toString() const;
    void appendTo(String& out) const;
    std::string toUtf8() const;
    void appendUtf8(std::string& out) const;

    // A hash of all the characters (the same for equal texts).
    std::size_t contentHash() const noexcept;

    friend bool operator==(const CompactText& a, const CompactText& b) noexcept {
        if (a.m_rep == b.m_rep) return true;
        if (!a.m_rep || !b.m_rep) return false;
        // Same form and length (canonical forms make a mixed pair unequal).
        const std::uint32_t mask = ~kAsciiFlag;
        if ((a.m_rep->bits & mask) != (b.m_rep->bits & mask)) return false;
        return std::memcmp(a.m_rep + 1, b.m_rep + 1, a.byteSize()) == 0;
    }
    friend bool operator!=(const CompactText& a, const CompactText& b) noexcept { return !(a == b); }
    // <0, 0 or >0, in the order of the wide texts.
    // Inlined wherever it is used: an ordered map's walk calls it at every
    // step, and a call there costs about as much as the comparison.
    [[gnu::always_inline]] friend int compare(const CompactText& a, const CompactText& b) noexcept {
        if (!a.isWide() && !b.isWide()) return compareNarrow(a.narrow(), a.size(), b.narrow(), b.size());
        return compareSlow(a, b);
    }
    [[gnu::always_inline]] friend bool operator<(const CompactText& a, const CompactText& b) noexcept {
        return compare(a, b) < 0;
    }

private:
    static constexpr std::uint32_t kWideFlag = 1;
    static constexpr std::uint32_t kAsciiFlag = 2;
    static constexpr unsigned kFlagBits = 2;

    // A count, the length and form, then the characters, in one block.
    struct Rep {
        std::atomic<std::uint32_t> refs;
        std::uint32_t bits;  // size << kFlagBits | flags
    };

    // The empty text reads as a valid (empty) byte range, never a null one.
    const unsigned char* narrow() const noexcept {
        static constexpr unsigned char kNone[1] = {0};
        return m_rep ? reinterpret_cast<const unsigned char*>(m_rep + 1) : kNone;
    }
    const wchar_t* wide() const noexcept { return reinterpret_cast<const wchar_t*>(m_rep + 1); }
    std::size_t byteSize() const noexcept { return size() * (isWide() ? sizeof(wchar_t) : 1); }

    static Rep* allocate(std::size_t size, bool wide);
    static bool computeAscii(const Rep* rep) noexcept;
    static Rep* makeNarrow(const unsigned char* chars, std::size_t n, bool ascii);
    static Rep* makeFrom(const unsigned char* chars, std::size_t n);
    static Rep* makeFrom(const wchar_t* chars, std::size_t n);
    static int compareSlow(const CompactText& a, const CompactText& b) noexcept;

    // Two narrow texts in byte order, then by length.
    static int compareNarrow(const unsigned char* p, std::size_t np, const unsigned char* q,
                             std::size_t nq) noexcept {
        const int r = std::memcmp(p, q, np < nq ? np : nq);
        if (r != 0) return r;
        return np < nq ? -1 : (np > nq ? 1 : 0);
    }

    static void acquire(Rep* rep) noexcept {
        if (rep) rep->refs.fetch_add(1, std::memory_order_relaxed);
    }
    static void release(Rep* rep) noexcept {
        if (rep && rep->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy(rep);
    }
    static void destroy(Rep* rep) noexcept;

    Rep* m_rep = nullptr;
};

}  // namespace kiv::catalog
