// Work that several threads share.
#pragma once

#include <cstddef>
#include <functional>

namespace pkgdist::release {

// Calls work(0) to work(count - 1), each once, from so many threads; 0: as many as there are
// processors. After an exception nothing more is begun, and the first one is thrown.
void in_parallel(size_t count, unsigned threads, const std::function<void(size_t)>& work);

}  // namespace pkgdist::release
