// What a fuzzer tells the mutator of step sequences about its inputs.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

// What a step's payload consists of.
enum class Layout : uint8_t { kBytes, kControl, kData, kFileList };

// Bytes before the first step, and before a datagram in the payload of a step.
extern const size_t kPrefixBytes;
Layout layout_of(uint8_t kind);
size_t datagram_offset(uint8_t kind);

}  // namespace fuzz
