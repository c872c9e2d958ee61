// The command line of pkgdist-doctor.
#pragma once

#include <cstdint>
#include <vector>

#include "cli_common.h"

namespace pkgdist::doctor {

enum class Role { kLead, kNode };

inline const char* role_name(Role role) {
  return role == Role::kLead ? "lead" : "node";
}

// What the receive library asks the kernel for; its data socket is the largest.
inline constexpr uint32_t kNodeReceiveBuffer = 3 * 1024 * 1024;
// What the lead asks for, for the answers of many nodes.
inline constexpr uint32_t kLeadReceiveBuffer = 8 * 1024 * 1024;

struct DoctorOptions {
  cli::CommonOptions common;
  Role role = Role::kNode;
  double seconds = 6;                 // of talking to the other side
  double wait_seconds = 0;            // for the other side to be started
  std::vector<uint32_t> peers;        // that must be there
  uint32_t receive_buffer = 0;        // bytes; 0: what the program of the role asks for
  uint64_t need_bytes = 100'000'000;  // free in each storage location
  uint32_t ttl = 1;
};

void add_doctor_options(CLI::App& app, DoctorOptions& options);

}  // namespace pkgdist::doctor
