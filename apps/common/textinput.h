// Reading the hosts' inputs: command-line arguments, request parameters and
// files (or standard input, named "-"). Everything arrives as bytes and is decoded through the
// platform's strict UTF-8 codec; text that is not UTF-8 is refused with a
// clear error rather than passed on.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "qz/platform/string.h"
#include "qz/webcatalog/path.h"

namespace kiv::host {

// The largest input file the tool reads (64 MiB).
constexpr std::size_t kMaxInputBytes = 64u * 1024u * 1024u;

// The bytes of a file, or of standard input for "-". Raises InputError when
// the file cannot be read or is larger than kMaxInputBytes.
std::string readInput(const std::string& fileOrDash);

// Decodes an argument; UsageError naming `what` when it is not UTF-8.
String argumentText(const std::string& utf8, std::string_view what);
// Decodes the content of an input; InputError naming `what` when it is not UTF-8.
String inputText(const std::string& utf8, std::string_view what);

// A catalog path argument, strictly checked; UsageError when malformed.
catalog::Path catalogPathArgument(const std::string& utf8, std::string_view what);
// An item name argument (one path component, unescaped); UsageError when invalid.
String itemNameArgument(const std::string& utf8, std::string_view what);
// A category argument as a favorites path: "" is the root "/root", a text
// starting with "/" is taken as a favorites path, any other text is relative
// to the root ("Sales/Q1" is "/root/Sales/Q1", with "/" inside a name written
// "\/"). UsageError when the result is malformed.
catalog::Path categoryArgument(const std::string& utf8, std::string_view what);

// `utf8` made safe to show on a terminal: control characters (C0, DEL and
// C1, which a terminal would act on: ESC starts a control sequence, CR
// returns to the start of the line) are written as \xNN (\u00NN for C1), so
// that text from arguments or from the catalog cannot move the cursor, hide
// what was printed before it or change the terminal's state. Line feeds
// are kept when `keepLineFeeds`.
std::string terminalText(std::string_view utf8, bool keepLineFeeds = false);

}  // namespace kiv::host
