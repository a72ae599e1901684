#pragma once

#include <cstdint>
#include <ctime>

// The part of kqueue(2) of macOS that watches files. Kqueue.cpp implements it with inotify(7).

constexpr int16_t EVFILT_VNODE = -4;
constexpr uint16_t EV_ADD = 0x0001, EV_CLEAR = 0x0020;
constexpr uint32_t NOTE_DELETE = 0x01, NOTE_WRITE = 0x02, NOTE_EXTEND = 0x04, NOTE_ATTRIB = 0x08, NOTE_RENAME = 0x20,
                   NOTE_REVOKE = 0x40;

struct kevent {
  uintptr_t ident;  // a descriptor
  int16_t filter;
  uint16_t flags;
  uint32_t fflags;
  intptr_t data;
  void* udata;
};

inline void EV_SET(struct kevent* event, uintptr_t ident, int16_t filter, uint16_t flags, uint32_t fflags,
                   intptr_t data, void* udata) {
  *event = {ident, filter, flags, fflags, data, udata};
}

int kqueue();
int kevent(int queue, const struct kevent* changes, int changesCount, struct kevent* events, int eventsCount,
           const timespec* timeout);
