// Heap allocation with a log line on failure, and a tracked variant that keeps
// every live block on a stack so a leak report can be printed.
//
// Two families share one calling convention: every call carries the name of
// the calling function and a line number, which appear in the log (tag
// "TAG_MEM").
//  - ZIRK_Malloc_Msg / ZIRK_Calloc_Msg / ZIRK_Free_Msg: malloc, calloc and
//    free that log failures. The engine's own buffers use these. Their live
//    blocks are recorded too (on a stack of their own), so the leak report
//    lists an engine buffer nobody released; ZIRK_Free_Msg frees any block it
//    is given, recorded or not.
//  - ZIRK_Malloc / ZIRK_Calloc / ZIRK_Free / ZIRK_New_Mngr / ZIRK_Delete_Mngr /
//    ZIRK_Delete_Array_Mngr: the same, recorded on the global stack gMemStack;
//    their free and delete functions refuse blocks not recorded there.
//  - ZIRK_check_memory_status: the leak report over both stacks.
// Both stacks are changed under one lock (the message family is used from
// worker threads); lookups are linear in the number of live blocks of the
// stack, newest first.
#pragma once

#include <cstdint>

#include "support/export.h"

// One live tracked block.
struct ZIRK_Mem_Info {
  int32_t line;          // caller's line number
  const char* function;  // caller's function name (not owned)
  int32_t size;          // bytes; truncated to 32 bits on purpose
};

// Singly linked stack of tracked blocks. The key is the low 32 bits of the
// block's address: lookups compare only those bits, so two live blocks that
// agree in them cannot be told apart (kept deliberately small).
template <typename T>
class ZIRK_Stack {
 public:
  struct Node {
    uint32_t key;
    T value;
    Node* next;
  };

  ZIRK_Stack() = default;
  ZIRK_Stack(const ZIRK_Stack&) = delete;
  ZIRK_Stack& operator=(const ZIRK_Stack&) = delete;
  // Deletes every node; neither the records nor the blocks.
  ~ZIRK_Stack() {
    while (m_top != nullptr) {
      Node* n = m_top;
      m_top = n->next;
      delete n;
    }
  }

  bool empty() const { return m_top == nullptr; }
  void push(uint32_t key, T value) { m_top = new Node{key, value, m_top}; }

  // Removes the newest node with this key; returns its value through *out.
  bool unlink(uint32_t key, T* out) {
    Node* prev = nullptr;
    for (Node* n = m_top; n != nullptr; prev = n, n = n->next) {
      if (n->key != key) continue;
      (prev == nullptr ? m_top : prev->next) = n->next;
      *out = n->value;
      delete n;
      return true;
    }
    return false;
  }

  // Removes the top node; returns false on an empty stack.
  bool pop(T* out) {
    if (m_top == nullptr) return false;
    Node* n = m_top;
    m_top = n->next;
    *out = n->value;
    delete n;
    return true;
  }

 private:
  Node* m_top = nullptr;
};

// The live tracked blocks of the process.
extern SEGCORE_EXPORT ZIRK_Stack<ZIRK_Mem_Info*> gMemStack;

SEGCORE_EXPORT void* ZIRK_Malloc_Msg(unsigned long size, const char* function, int line);
SEGCORE_EXPORT void* ZIRK_Calloc_Msg(unsigned long count, unsigned long size, const char* function,
                                     int line);
// A null pointer logs a warning and frees nothing.
SEGCORE_EXPORT void ZIRK_Free_Msg(void* pointer, const char* function, int line);

SEGCORE_EXPORT void* ZIRK_Malloc(unsigned long size, const char* function, int line);
SEGCORE_EXPORT void* ZIRK_Calloc(unsigned long count, unsigned long size, const char* function,
                                 int line);
// Frees only blocks found on the stack; anything else logs a warning and is
// left alone, so a double release never reaches free().
SEGCORE_EXPORT void ZIRK_Free(void* pointer, const char* function, int line);
// Records the result of a new expression; returns it.
SEGCORE_EXPORT void* ZIRK_New_Mngr(void* pointer, const char* function, int line);
// Forgets a recorded object; returns 1 when found (the caller then deletes it).
SEGCORE_EXPORT int ZIRK_Delete_Mngr(void* pointer, const char* function, int line);
SEGCORE_EXPORT int ZIRK_Delete_Array_Mngr(void* pointer, const char* function, int line);
// Logs every block still recorded, tracked ones first, and forgets them (the
// blocks stay allocated); "No memory Leak found " when there is none.
SEGCORE_EXPORT void ZIRK_check_memory_status();
