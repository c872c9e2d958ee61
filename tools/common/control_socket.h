// The socket through which a program that runs takes commands from others on the same host: where
// it is, who has it, how to open and to reach it.
//
// Its mode keeps other users out. The path may be in a directory where everybody can make a socket,
// so a program asks the kernel who listens before it says anything.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "poller.h"

namespace pkgdist::cli {

// `given`, or PROGRAM-ADDRESS-PORT.sock in $XDG_RUNTIME_DIR, in /run where that may be written, or
// in /tmp. Throws CLI::ValidationError when the path is too long for a socket.
std::string control_socket_path(const std::string& given, const std::string& program,
                                uint32_t address, uint16_t port);

// Another program has the socket.
struct SocketTaken : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Non-blocking. A socket on which nobody listens is left over from a program that was killed: it is
// replaced. Throws SocketTaken, which names the process that has it, or std::runtime_error.
Fd listen_on(const std::string& path);

// Nothing when nobody listens there. Throws std::runtime_error for other reasons, among them that
// the program there belongs to another user than this one's or root; not checked when the user has
// `given` the path.
std::optional<Fd> connect_to(const std::string& path, bool given);

// The process at the other end.
pid_t peer_process(const Fd& socket);

// "process 4711 (pkgdist-lead --interface ... serve)".
std::string process_text(pid_t pid);

// The process that has a UDP port of an address; nothing when none has it or that may not be seen.
std::optional<pid_t> port_owner(uint32_t address, uint16_t port);

}  // namespace pkgdist::cli
