// The order in which the library's mutexes are held together, watched while tests run.
//
// pthread_mutex_lock() and pthread_mutex_unlock() of the whole process are interposed. Each thread
// knows which of the library's mutexes it holds; one that is taken against the order ends the
// process with a message that names both, whether or not another thread was about to make a
// deadlock of it. Mutexes of anybody else are left alone.
//
// With PKGDIST_LOCK_ORDER=FILE in the environment every pair that is met is appended to the file,
// one line per pair and process: `sort -u FILE` is the order of a whole run.
#pragma once

#include <pthread.h>

#include <string>
#include <utility>
#include <vector>

namespace support::lock_order {

// Left before right; what stands in braces is not held together, except along an inner arrow. The
// same text stands in docs/architecture.md.
inline constexpr const char* kOrder[] = {
    ("control receive db -> file stat db -> file receive db"
     " -> { data contexts, data channels, DATA_RX mutex -> DATA_FILE mutex } -> atomic_mutex"),
    "control receive db -> { control contexts, control channels } -> atomic_mutex",
    "lead messages -> atomic_mutex",
};

// A mutex and one that was taken while it was held.
using Pair = std::pair<std::string, std::string>;

bool allows(const std::string& held, const std::string& taken);
std::vector<Pair> seen();  // by this process so far
pthread_mutex_t& mutex_of(const std::string& name);

}  // namespace support::lock_order
