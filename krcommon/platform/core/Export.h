#pragma once

// Marks the library's public surface. The library is built with hidden
// visibility, so only what carries this macro is exported from libkrcommon.so.
#if defined(KRCOMMON_STATIC_DEFINE)
#define KRCOMMON_EXPORT
#elif defined(__GNUC__) || defined(__clang__)
#define KRCOMMON_EXPORT __attribute__((visibility("default")))
#else
#define KRCOMMON_EXPORT
#endif
