// Helper threads shared by the engine's threaded stages.
//
// Starting a thread costs about 30 us on the development machine, and a
// thread that blocks takes about 50 us to wake; an edit runs some twenty
// threaded stages of a few milliseconds each, many of them back to back.
// The helpers are started on first use, one fewer than the cores (at most
// kMaxHelpers), stay awake for a short while after each job and then wait
// for the next. They end when the library is unloaded or the process
// exits; a forked child starts its own.
#pragma once

#include "support/export.h"

// Runs fn(context, 0) .. fn(context, slots - 1), each slot once, on the
// calling thread and the helpers, each taking the next slot when it is
// free; returns when all have run. Slots must not wait for one another:
// fewer threads than slots run them in turn. A call made while the helpers
// are busy (from another thread, or from inside a slot) runs its slots on
// threads of its own, one a slot after the first, as does any call when no
// helper can be started; a thread that can not be started leaves its slot
// to the calling thread.
SEGCORE_EXPORT void ZIRK_runSlots(int slots, void (*fn)(void* context, int slot), void* context);

// The same for any callable taking the slot number.
template <class Fn>
void ZIRK_runSlots(int slots, Fn& fn) {
  ZIRK_runSlots(slots, [](void* context, int slot) { (*static_cast<Fn*>(context))(slot); }, &fn);
}
