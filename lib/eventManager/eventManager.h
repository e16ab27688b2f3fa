// Single-threaded timer queue. Time is counted in ticks of 10 ms.
#pragma once

#include <cstdint>

struct EventManager;
struct Event; // handle of a pending callback; dead as soon as the callback is called or the event removed

// Returns false for a fatal failure, which ends the loop.
using EventManager_Callback = bool (*)(void* clientData);

EventManager* EventManager_Create(); // null when memory is short

// Frees every pending event without calling it, then the queue. Null is allowed.
void EventManager_Destroy(EventManager* manager);

// Schedules a callback after `delay` ticks (0: as soon as the loop turns). Events due at the same tick run in
// the order in which they were added. clientData is not owned. Null when memory is short or the clock is
// unusable.
Event* EventManager_Add(EventManager* manager, uint32_t delay, EventManager_Callback callback,
                        void* clientData);

// Forgets a pending event without calling it.
void EventManager_Remove(Event* event);

// Runs the first event if it is due. Returns 1 when a step was taken, with *sleep the time until the next one
// in microseconds (0 after a callback ran); 0 when the queue is empty, *sleep untouched; -1 when a callback
// failed or the clock is unusable.
int32_t EventManager_RunNext(EventManager* manager, uint64_t* sleep);

// Ticks since the system started, past the wrap of the system's 32-bit millisecond count; a gap of more than
// one wrap (49 days) between two calls goes unseen.
uint64_t EventManager_GetTime();

// Source of the 32-bit millisecond count: the system's own by default; tests put theirs here.
extern uint32_t (*eventManagerTickSource)();
