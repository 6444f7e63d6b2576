#include "support/ZIRKMemory.h"

#include <android/log.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

const char kTag[] = "TAG_MEM";

uint32_t keyOf(const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

void logAllocFailureZu(unsigned long size, const char* function, int line) {
  __android_log_print(ANDROID_LOG_ERROR, kTag,
                      "Failed to allocate %zu bytes in function : %s, Line : %d !",
                      static_cast<size_t>(size), function, line);
}

void logAllocFailureLu(unsigned long bytes, const char* function, int line) {
  __android_log_print(ANDROID_LOG_ERROR, kTag,
                      "Failed to allocate %lu bytes in function : %s, Line : %d !", bytes,
                      function, line);
}

void logInvalidFree(const void* p, const char* function, int line) {
  __android_log_print(ANDROID_LOG_WARN, kTag,
                      "Trying to free invalid pointer : %p in function : %s, Line : %d !", p,
                      function, line);
}

void track(void* p, unsigned long bytes, const char* function, int line) {
  gMemStack.push(keyOf(p), new ZIRK_Mem_Info{line, function, static_cast<int32_t>(bytes)});
}

// Forgets the newest record of p; true when there was one.
bool untrack(const void* p) {
  ZIRK_Mem_Info* info = nullptr;
  if (!gMemStack.unlink(keyOf(p), &info)) return false;
  delete info;
  return true;
}

}  // namespace

ZIRK_Stack<ZIRK_Mem_Info*> gMemStack;

void* ZIRK_Malloc_Msg(unsigned long size, const char* function, int line) {
  void* p = malloc(size);
  if (p == nullptr) logAllocFailureZu(size, function, line);
  return p;
}

void* ZIRK_Calloc_Msg(unsigned long count, unsigned long size, const char* function, int line) {
  void* p = calloc(count, size);
  if (p == nullptr) logAllocFailureLu(count * size, function, line);
  return p;
}

void ZIRK_Free_Msg(void* pointer, const char* function, int line) {
  if (pointer == nullptr) {
    logInvalidFree(pointer, function, line);
    return;
  }
  free(pointer);
}

void* ZIRK_Malloc(unsigned long size, const char* function, int line) {
  void* p = malloc(size);
  if (p == nullptr) {
    logAllocFailureZu(size, function, line);
    return nullptr;
  }
  track(p, size, function, line);
  return p;
}

void* ZIRK_Calloc(unsigned long count, unsigned long size, const char* function, int line) {
  void* p = calloc(count, size);
  if (p == nullptr) {
    logAllocFailureLu(count * size, function, line);
    return nullptr;
  }
  track(p, count * size, function, line);
  return p;
}

void ZIRK_Free(void* pointer, const char* function, int line) {
  if (pointer == nullptr || !untrack(pointer)) {
    logInvalidFree(pointer, function, line);
    return;
  }
  free(pointer);
}

void* ZIRK_New_Mngr(void* pointer, const char* function, int line) {
  if (pointer == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "Allocation failed in function : %s, Line : %d !",
                        function, line);
    return nullptr;
  }
  track(pointer, 0, function, line);
  return pointer;
}

int ZIRK_Delete_Mngr(void* pointer, const char* function, int line) {
  if (untrack(pointer)) return 1;
  __android_log_print(ANDROID_LOG_WARN, kTag,
                      "Trying to delete invalid pointer : %p in function : %s, Line : %d", pointer,
                      function, line);
  return 0;
}

int ZIRK_Delete_Array_Mngr(void* pointer, const char* function, int line) {
  if (untrack(pointer)) return 1;
  __android_log_print(ANDROID_LOG_WARN, kTag,
                      "Trying to delete invalid pointer array: %p in function : %s, Line : %d",
                      pointer, function, line);
  return 0;
}

void ZIRK_check_memory_status() {
  if (gMemStack.empty()) {
    __android_log_print(ANDROID_LOG_INFO, kTag, "No memory Leak found ");
    return;
  }
  ZIRK_Mem_Info* info = nullptr;
  while (gMemStack.pop(&info)) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "Failed to deallocate %d bytes allocated in function : %s, Line : %d",
                        info->size, info->function, info->line);
    delete info;
  }
}
