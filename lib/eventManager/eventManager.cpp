#include "eventManager/eventManager.h"

#include "misc/diag.h"

#include <limits>
#include <new>

#ifdef _WIN32
#include <windows.h>
#else
#include <chrono>
#endif

namespace {

constexpr uint64_t CLOCK_UNUSABLE = std::numeric_limits<uint64_t>::max();
constexpr uint64_t MILLISECONDS_PER_TICK = 10;
constexpr uint64_t MICROSECONDS_PER_TICK = 10000;

uint32_t SystemTickCount() {
#ifdef _WIN32
    return GetTickCount();
#else
    using namespace std::chrono;
    auto now = duration_cast<milliseconds>(steady_clock::now().time_since_epoch());
    return static_cast<uint32_t>(now.count());
#endif
}

} // namespace

// Pending events form a circle around the queue's own head, earliest first; the head alone is an empty queue.
struct Event {
    Event* next = this;
    Event* prev = this;
    uint64_t due = 0; // ticks
    EventManager_Callback callback = nullptr;
    void* clientData = nullptr;
};

struct EventManager {
    Event head;
};

uint32_t (*eventManagerTickSource)() = SystemTickCount;

namespace {

void Unlink(Event* event) {
    event->prev->next = event->next;
    event->next->prev = event->prev;
}

void InsertBefore(Event* position, Event* event) {
    event->prev = position->prev;
    event->next = position;
    position->prev->next = event;
    position->prev = event;
}

} // namespace

EventManager* EventManager_Create() {
    return new (std::nothrow) EventManager;
}

void EventManager_Destroy(EventManager* manager) {
    if (!manager) {
        return;
    }
    unsigned destroyed = 0;
    while (manager->head.next != &manager->head) {
        EventManager_Remove(manager->head.next);
        ++destroyed;
    }
    if (destroyed != 0) {
        Debug("EventManager_Destroy: destroyed %u events\n", destroyed);
    }
    delete manager;
}

Event* EventManager_Add(EventManager* manager, uint32_t delay, EventManager_Callback callback,
                        void* clientData) {
    uint64_t now = EventManager_GetTime();
    if (now == CLOCK_UNUSABLE) {
        return nullptr;
    }
    auto* event = new (std::nothrow) Event;
    if (!event) {
        return nullptr;
    }
    event->due = now + delay;
    event->callback = callback;
    event->clientData = clientData;

    // Behind every event that is due no later, so that equal times keep their order.
    Event* position = manager->head.next;
    while (position != &manager->head && position->due <= event->due) {
        position = position->next;
    }
    InsertBefore(position, event);
    return event;
}

void EventManager_Remove(Event* event) {
    Unlink(event);
    delete event;
}

int32_t EventManager_RunNext(EventManager* manager, uint64_t* sleep) {
    Event* event = manager->head.next;
    if (event == &manager->head) {
        return 0;
    }
    uint64_t now = EventManager_GetTime();
    if (now == CLOCK_UNUSABLE) {
        return -1;
    }
    auto remaining = static_cast<int64_t>(event->due - now);
    if (remaining > 0) {
        *sleep = static_cast<uint64_t>(remaining) * MICROSECONDS_PER_TICK;
        return 1;
    }

    Unlink(event);
    bool ran = event->callback(event->clientData);
    delete event;
    if (!ran) {
        return -1;
    }
    *sleep = 0;
    return 1;
}

uint64_t EventManager_GetTime() {
    static uint32_t last = 0;
    static uint64_t wrapped = 0; // whole wraps of the 32-bit count, in milliseconds

    uint32_t now = eventManagerTickSource();
    if (now < last) {
        wrapped += uint64_t{1} << 32;
    }
    last = now;
    return (now + wrapped) / MILLISECONDS_PER_TICK;
}
