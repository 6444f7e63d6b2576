// Symbol visibility of the library: everything is hidden unless marked.
// The caller's functions, the runtime functions and the classes the caller may
// reach carry SEGCORE_EXPORT; helpers stay internal.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define SEGCORE_EXPORT __attribute__((visibility("default")))
#else
#define SEGCORE_EXPORT
#endif
