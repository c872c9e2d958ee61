// The control side of a node: pings, control messages, acknowledgements of leads, in any order.
#include <iterator>

#include "live_node.h"

const size_t fuzz::kPrefixBytes = 1;
fuzz::Layout fuzz::layout_of(uint8_t kind) {
  return layout_of(fuzz::kControlActions[kind % std::size(fuzz::kControlActions)]);
}
size_t fuzz::datagram_offset(uint8_t kind) {
  return datagram_offset(fuzz::kControlActions[kind % std::size(fuzz::kControlActions)]);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::run_node_input({data, size}, fuzz::kControlActions);
  return 0;
}
