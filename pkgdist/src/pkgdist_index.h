// A hash index beside a database: finds entries without walking the queue.
//
// The index is intrusive (an IndexLink in the entry), so adding and removing never allocates and
// never fails. The bucket array grows with the number of entries; when memory for a larger one is
// missing the old one stays and lookups merely get slower. The index belongs to the database's
// mutex.
//
// Among equal keys the entry that was appended first wins, as in a walk from the head: `find`
// compares the entries' growing serial numbers.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace pkgdist {

template <class Entry>
struct IndexLink {
  Entry* next = nullptr;
  uint64_t hash = 0;
  bool linked = false;
};

// Mixes a key so that neighbouring numbers spread over the buckets.
inline uint64_t hash_number(uint64_t key) {
  key = (key ^ key >> 33) * 0xff51afd7ed558ccd;
  return key ^ key >> 33;
}

inline uint64_t hash_text(const char* text) {
  uint64_t hash = 0xcbf29ce484222325;
  for (; *text != '\0'; ++text) hash = (hash ^ static_cast<uint8_t>(*text)) * 0x100000001b3;
  return hash_number(hash);
}

template <class Entry, IndexLink<Entry> Entry::*Link>
class Index {
 public:
  void add(Entry* entry, uint64_t hash) {
    grow_if_full();
    (entry->*Link).hash = hash;
    (entry->*Link).linked = true;
    push(buckets_, mask_, entry);
    ++count_;
  }

  void remove(Entry* entry) {
    if (!(entry->*Link).linked) return;
    Entry** at = &buckets_[(entry->*Link).hash & mask_];
    while (*at != entry) at = &((*at)->*Link).next;
    *at = (entry->*Link).next;
    entry->*Link = {};
    --count_;
  }

  // The oldest entry with this hash for which `match` says yes, or nullptr.
  template <class Match>
  Entry* find(uint64_t hash, Match&& match) const {
    Entry* oldest = nullptr;
    for (Entry* at = buckets_[hash & mask_]; at != nullptr; at = (at->*Link).next)
      if ((at->*Link).hash == hash && match(*at) &&
          (oldest == nullptr || at->serial < oldest->serial))
        oldest = at;
    return oldest;
  }

 private:
  static constexpr uint64_t kInitialBuckets = 16;

  static void push(Entry** buckets, uint64_t mask, Entry* entry) {
    Entry*& first = buckets[(entry->*Link).hash & mask];
    (entry->*Link).next = first;
    first = entry;
  }

  void grow_if_full() {
    if (count_ <= mask_) return;
    const uint64_t mask = mask_ * 2 + 1;
    auto** buckets = static_cast<Entry**>(std::calloc(mask + 1, sizeof(Entry*)));
    if (buckets == nullptr) return;
    for (uint64_t i = 0; i <= mask_; ++i) {
      for (Entry* at = buckets_[i]; at != nullptr;) {
        Entry* next = (at->*Link).next;
        push(buckets, mask, at);
        at = next;
      }
    }
    if (buckets_ != initial_) std::free(buckets_);
    buckets_ = buckets;
    mask_ = mask;
  }

  Entry* initial_[kInitialBuckets] = {};
  Entry** buckets_ = initial_;
  uint64_t mask_ = kInitialBuckets - 1;
  uint64_t count_ = 0;
};

}  // namespace pkgdist
