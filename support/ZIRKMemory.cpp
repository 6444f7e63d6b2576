#include "support/ZIRKMemory.h"

#include <android/log.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>

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

// The live blocks of the message family, recorded like the tracked ones so
// that the leak report sees the engine's own buffers. A stack of its own:
// the tracked family's free and delete functions must not take these blocks
// for theirs.
ZIRK_Stack<ZIRK_Mem_Info*> g_msgMemStack;

// The message family is used from the parallel graph cut's worker threads,
// so both stacks are changed under one lock.
std::mutex g_stackLock;

void track(ZIRK_Stack<ZIRK_Mem_Info*>& stack, void* p, unsigned long bytes, const char* function,
           int line) {
  ZIRK_Mem_Info* info = new ZIRK_Mem_Info{line, function, static_cast<int32_t>(bytes)};
  std::lock_guard<std::mutex> lock(g_stackLock);
  stack.push(keyOf(p), info);
}

// Forgets the newest record of p; true when there was one.
bool untrack(ZIRK_Stack<ZIRK_Mem_Info*>& stack, const void* p) {
  ZIRK_Mem_Info* info = nullptr;
  {
    std::lock_guard<std::mutex> lock(g_stackLock);
    if (!stack.unlink(keyOf(p), &info)) return false;
  }
  delete info;
  return true;
}

// Logs and forgets every record of one stack; false when it was empty.
bool reportLeaks(ZIRK_Stack<ZIRK_Mem_Info*>& stack) {
  bool any = false;
  ZIRK_Mem_Info* info = nullptr;
  while (stack.pop(&info)) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "Failed to deallocate %d bytes allocated in function : %s, Line : %d",
                        info->size, info->function, info->line);
    delete info;
    any = true;
  }
  return any;
}

}  // namespace

ZIRK_Stack<ZIRK_Mem_Info*> gMemStack;

void* ZIRK_Malloc_Msg(unsigned long size, const char* function, int line) {
  void* p = malloc(size);
  if (p == nullptr) {
    logAllocFailureZu(size, function, line);
    return nullptr;
  }
  track(g_msgMemStack, p, size, function, line);
  return p;
}

void* ZIRK_Calloc_Msg(unsigned long count, unsigned long size, const char* function, int line) {
  void* p = calloc(count, size);
  if (p == nullptr) {
    logAllocFailureLu(count * size, function, line);
    return nullptr;
  }
  track(g_msgMemStack, p, count * size, function, line);
  return p;
}

void ZIRK_Free_Msg(void* pointer, const char* function, int line) {
  if (pointer == nullptr) {
    logInvalidFree(pointer, function, line);
    return;
  }
  // A block without a record (one the leak report has already listed) is
  // freed all the same: this family frees what it is given.
  untrack(g_msgMemStack, pointer);
  free(pointer);
}

void* ZIRK_Malloc(unsigned long size, const char* function, int line) {
  void* p = malloc(size);
  if (p == nullptr) {
    logAllocFailureZu(size, function, line);
    return nullptr;
  }
  track(gMemStack, p, size, function, line);
  return p;
}

void* ZIRK_Calloc(unsigned long count, unsigned long size, const char* function, int line) {
  void* p = calloc(count, size);
  if (p == nullptr) {
    logAllocFailureLu(count * size, function, line);
    return nullptr;
  }
  track(gMemStack, p, count * size, function, line);
  return p;
}

void ZIRK_Free(void* pointer, const char* function, int line) {
  if (pointer == nullptr || !untrack(gMemStack, pointer)) {
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
  track(gMemStack, pointer, 0, function, line);
  return pointer;
}

int ZIRK_Delete_Mngr(void* pointer, const char* function, int line) {
  if (untrack(gMemStack, pointer)) return 1;
  __android_log_print(ANDROID_LOG_WARN, kTag,
                      "Trying to delete invalid pointer : %p in function : %s, Line : %d", pointer,
                      function, line);
  return 0;
}

int ZIRK_Delete_Array_Mngr(void* pointer, const char* function, int line) {
  if (untrack(gMemStack, pointer)) return 1;
  __android_log_print(ANDROID_LOG_WARN, kTag,
                      "Trying to delete invalid pointer array: %p in function : %s, Line : %d",
                      pointer, function, line);
  return 0;
}

void ZIRK_check_memory_status() {
  std::lock_guard<std::mutex> lock(g_stackLock);
  // The tracked blocks first, then the engine's own buffers; each newest first.
  const bool tracked = reportLeaks(gMemStack);
  const bool own = reportLeaks(g_msgMemStack);
  if (!tracked && !own) __android_log_print(ANDROID_LOG_INFO, kTag, "No memory Leak found ");
}
