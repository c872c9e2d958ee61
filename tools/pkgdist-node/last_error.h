// Why a call of the library failed, in its own words: the last error in the trace of this process.
#pragma once

#include <cstdint>
#include <string>

namespace pkgdist::node_program {

// "ctrl mc rx bind failed: 98(Address already in use)"; empty when the trace has no error, or
// cannot be read. For a call that has just failed, errors of the calling thread go before those of
// others, which go on.
enum class ErrorOf { kThisThread, kAnyThread };
std::string last_error(ErrorOf whose);

// A status in words. Where it says no more than that the system refused something, with what was
// refused, and why.
std::string status_with_error(uint64_t status);
// The same of a message to the lead: 0 is its acknowledgement.
std::string message_text(uint64_t status);

}  // namespace pkgdist::node_program
