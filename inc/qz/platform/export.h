// Symbol visibility of the project's shared libraries.
//
// The libraries are built with hidden visibility: only what is marked
// KIV_API (the classes and functions of the headers under qz/) is exported,
// and a program or library built against them sees nothing else. Classes
// marked KIV_API export every member, their type information and virtual
// tables, so that exceptions and dynamic casts work across libraries.
//
// Thread safety: not applicable (macros only).
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define KIV_API __attribute__((visibility("default")))
#else
#define KIV_API
#endif
