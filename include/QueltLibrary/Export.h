// QLT_EXPORT: what the shared library exports. The library is built with hidden symbols
// (-fvisibility=hidden); the classes, functions and data of the public headers carry this
// mark, and only they are visible to programs and modules that load libQueltLibrary.so.
// For the static library and for code that includes the headers it changes nothing.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define QLT_EXPORT __attribute__((visibility("default")))
#else
#define QLT_EXPORT
#endif
// For the private implementation class of an exported one (its Impl, declared in the public
// header, defined in src/): it would inherit the exported class's visibility otherwise.
#if defined(__GNUC__) || defined(__clang__)
#define QLT_HIDDEN __attribute__((visibility("hidden")))
#else
#define QLT_HIDDEN
#endif
