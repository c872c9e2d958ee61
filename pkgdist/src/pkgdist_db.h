// The module database: a queue of entries with its count, an identifier allocator and its mutex.
// Every database of the library is one of these.
//
// Entries carry their own links (`next`, `previous`) and belong to the database while they are in
// it; taking one out gives it to the taker. Nothing here locks: callers hold the mutex, which the
// database's guard (pkgdist_lock.h) takes.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace pkgdist {

// Identifiers below this one are reserved for contexts that exist once.
inline constexpr uint32_t kFirstAllocatedId = 10;

template <class Entry>
struct ModuleDb {
  Entry* head = nullptr;
  Entry* tail = nullptr;
  uint32_t count = 0;
  uint32_t next_id = kFirstAllocatedId;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

  bool empty() const { return head == nullptr; }

  void append(Entry* entry) {
    entry->next = nullptr;
    entry->previous = tail;
    (tail != nullptr ? tail->next : head) = entry;
    tail = entry;
    ++count;
  }

  // Takes out an entry that is in the queue.
  void remove(Entry* entry) {
    (entry->previous != nullptr ? entry->previous->next : head) = entry->next;
    (entry->next != nullptr ? entry->next->previous : tail) = entry->previous;
    entry->next = entry->previous = nullptr;
    --count;
  }

  // The first entry for which `match` says yes, or nullptr.
  template <class Match>
  Entry* find(Match&& match) const {
    for (Entry* at = head; at != nullptr; at = at->next)
      if (match(*at)) return at;
    return nullptr;
  }

  // A fresh identifier, never below kFirstAllocatedId.
  uint32_t allocate_id() {
    const uint32_t id = next_id++;
    if (next_id < kFirstAllocatedId) next_id = kFirstAllocatedId;
    return id;
  }
};

}  // namespace pkgdist
