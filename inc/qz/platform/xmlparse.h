// One hardened libxml2 parse for every part of the platform layer that reads
// XML it did not write: the document model (XmlDocument::parse) and the SOAP
// envelope parser both read their input through parseHardened.
//
// The parse refuses, or never does, what untrusted input must not bring in:
//   - a DOCTYPE declaration: the parser calls back when it meets one, before
//     its internal subset is read, and the parse stops there. Refusing every
//     DOCTYPE shuts out entity declarations (and with them entity-expansion
//     bombs), external entities and external DTDs in one place.
//   - the network and files: XML_PARSE_NONET is always given; options that
//     substitute entities, load or apply a DTD, process XIncludes or lift
//     libxml2's own limits on text sizes (XML_PARSE_HUGE) are never passed,
//     whatever the caller asks; and libxml2's external entity loader is one
//     that does not go to the network.
//   - printing: every error libxml2 raises during the parse, with the
//     parser's context or without it (a failed encoding conversion, say),
//     goes to a handler that keeps it, so nothing reaches stderr.
//
// The parse hands out a libxml2 document, so this header is for code that
// itself builds against libxml2 and links it; it brings libxml2's headers in.
//
// Thread safety: any thread may parse at any time. While a parse runs it
// replaces the calling thread's libxml2 error handler, and puts the one
// before back when it returns.
#pragma once

#include "qz/platform/export.h"

#include <libxml/tree.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kiv::xml {

// One error libxml2 reported.
struct ParseMessage {
    int line = 0;      // as libxml2 gives it: 0 (or less) when it names none
    std::string text;  // its text, trailing line breaks and spaces removed

    // "line N: text", or the text alone when there is no line.
    std::string describe() const { return line > 0 ? "line " + std::to_string(line) + ": " + text : text; }
};

struct HardenedParseOptions {
    // What fails the parse, besides a DOCTYPE and libxml2 returning no
    // document.
    enum EFailOn {
        // Any error libxml2 reports (warnings aside), those after which the
        // document is still well-formed included (an xml:id value that is
        // not a name, say).
        kAnyError,
        // Only a document that is not well-formed, or not well-formed with
        // respect to namespaces; other errors are kept but do not fail it.
        kNotWellFormed
    };

    // libxml2 parser options (XML_PARSE_*) on top of XML_PARSE_NONET, less
    // those the parse never passes (see above).
    int parserOptions = 0;
    // The URL libxml2 gives the document; none when null.
    const char* baseUrl = nullptr;
    // The encoding the bytes are read in whatever the document declares;
    // when null, the document's own (its declaration or byte order mark,
    // UTF-8 when it names none).
    const char* encoding = nullptr;
    EFailOn failOn = kAnyError;
};

// Why parseHardened returned no document.
struct HardenedParseFailure {
    enum EKind {
        kNone,       // it returned one
        kDoctype,    // the document carries a DOCTYPE declaration
        kMalformed,  // an error that fails the parse (see EFailOn), or no document from libxml2
    };
    EKind kind = kNone;
    // What to report when the parse failed: the first error libxml2
    // reported, or "a DOCTYPE declaration is not allowed" (with the line of
    // the DOCTYPE) when that came first; failing both, the last error the
    // parser recorded; failing that, "malformed XML".
    ParseMessage first;
    // The last error the parser recorded, when it recorded one with a text.
    std::optional<ParseMessage> last;
};

// Frees a document parseHardened returned.
struct ParsedDocFree {
    void operator()(xmlDocPtr doc) const noexcept { xmlFreeDoc(doc); }
};
using ParsedDoc = std::unique_ptr<xmlDoc, ParsedDocFree>;

// Parses `bytes` with libxml2 as described above. Returns the document, with
// `failure.kind` kNone; or null, with `failure` saying why. Throws
// std::bad_alloc when libxml2 cannot allocate its parser.
KIV_API ParsedDoc parseHardened(std::string_view bytes, const HardenedParseOptions& options,
                                HardenedParseFailure& failure);

}  // namespace kiv::xml
