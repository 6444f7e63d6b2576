// The engine's log lines. Everything goes straight to the Android log:
// the NDK's liblog on a device, Debian's android-liblog on a Linux host.
#pragma once

#include <android/log.h>

// Priorities as the Android log numbers them.
enum ZIRKLogPriority {
  ZIRK_LOG_INFO = ANDROID_LOG_INFO,    // 4
  ZIRK_LOG_WARN = ANDROID_LOG_WARN,    // 5
  ZIRK_LOG_ERROR = ANDROID_LOG_ERROR,  // 6
};

// "MEMORY_CRASH : <function> <site>": the one report of a bad size the engine
// gives. Work goes on after it; the number identifies the call site.
inline void ZIRK_LogMemoryCrash(const char* function, int site) {
  __android_log_print(ANDROID_LOG_ERROR, "Error", "MEMORY_CRASH : %s %d", function, site);
}
