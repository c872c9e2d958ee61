#include "control_socket.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <CLI/Error.hpp>
#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "cli_common.h"
#include "printable.h"
#include "process_object.h"

namespace pkgdist::cli {

namespace {

namespace fs = std::filesystem;

constexpr int kBacklog = 64;
constexpr mode_t kOwnerOnly = 0177;  // as umask
constexpr size_t kMaxCommandLine = 200;

std::string runtime_directory() {
  const char* own = std::getenv("XDG_RUNTIME_DIR");
  if (own != nullptr && own[0] == '/') return own;
  return ::access("/run", W_OK) == 0 ? "/run" : "/tmp";
}

sockaddr_un endpoint(const std::string& path) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  path.copy(name.sun_path, sizeof name.sun_path - 1);
  return name;
}

Fd local_socket(int flags = 0) {
  return Fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

int bind_to(const Fd& fd, const sockaddr_un& name) {
  const mode_t before = ::umask(kOwnerOnly);
  const int result = ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name);
  const int error = errno;
  ::umask(before);
  errno = error;
  return result;
}

int connect_socket(const Fd& fd, const sockaddr_un& name) {
  return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name);
}

ucred credentials(const Fd& fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) peer.uid = UINT32_MAX;
  return peer;
}

[[noreturn]] void fail(const std::string& path, const std::string& why) {
  throw std::runtime_error(fmt::format("control socket {}: {}", path, why));
}

// Returns when what stands there is a socket that nobody listens on.
void require_stale(const std::string& path, const sockaddr_un& name) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode))
    fail(path, "there is something else under this name");
  const Fd probe = local_socket(SOCK_NONBLOCK);
  if (connect_socket(probe, name) == 0)
    throw SocketTaken(fmt::format("{} runs here already", process_text(peer_process(probe))));
  if (errno != ECONNREFUSED) fail(path, std::strerror(errno));
}

// The sockets in the kernel's table of this network namespace that have the port.
std::set<uint64_t> sockets_of(uint32_t address, uint16_t port) {
  std::set<uint64_t> inodes;
  std::ifstream table("/proc/net/udp");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string slot, local, skipped;
    uint64_t inode = 0;
    if (!(fields >> slot >> local)) continue;
    for (int i = 0; i < 7; ++i) fields >> skipped;
    uint32_t at = 0, number = 0;
    if (!(fields >> inode) ||
        std::sscanf(local.c_str(), "%8" SCNx32 ":%4" SCNx32, &at, &number) != 2)
      continue;
    if (number == port && (at == 0 || at == htonl(address))) inodes.insert(inode);
  }
  return inodes;
}

bool has_one(pid_t pid, const std::set<uint64_t>& inodes) {
  const std::string directory = fmt::format("/proc/{}/fd", pid);
  for (const std::string& name : tools::names_in(directory).value_or(std::vector<std::string>{})) {
    std::error_code error;
    const std::string target = fs::read_symlink(directory + '/' + name, error).string();
    uint64_t inode = 0;
    if (!error && std::sscanf(target.c_str(), "socket:[%" SCNu64 "]", &inode) == 1 &&
        inodes.contains(inode))
      return true;
  }
  return false;
}

}  // namespace

std::string control_socket_path(const std::string& given, const std::string& program,
                                uint32_t address, uint16_t port) {
  const std::string path = !given.empty() ? given
                                          : fmt::format("{}/{}-{}-{}.sock", runtime_directory(),
                                                        program, format_address(address), port);
  if (path.size() >= sizeof(sockaddr_un::sun_path))
    throw CLI::ValidationError(fmt::format("--control: too long for a socket: '{}'", path));
  return path;
}

Fd listen_on(const std::string& path) {
  const sockaddr_un name = endpoint(path);
  Fd fd = local_socket(SOCK_NONBLOCK);
  int result = bind_to(fd, name);
  if (result != 0 && errno == EADDRINUSE) {
    require_stale(path, name);
    (void)::unlink(path.c_str());
    result = bind_to(fd, name);
  }
  if (result != 0 || ::listen(fd.get(), kBacklog) != 0) fail(path, std::strerror(errno));
  return fd;
}

std::optional<Fd> connect_to(const std::string& path, bool given) {
  Fd fd = local_socket();
  if (connect_socket(fd, endpoint(path)) != 0) {
    if (errno == ENOENT || errno == ECONNREFUSED) return std::nullopt;
    fail(path, std::strerror(errno));
  }
  const ucred peer = credentials(fd);
  if (!given && peer.uid != ::geteuid() && peer.uid != 0) fail(path, "it belongs to another user");
  return fd;
}

pid_t peer_process(const Fd& socket) {
  return credentials(socket).pid;
}

std::string process_text(pid_t pid) {
  std::ifstream file(fmt::format("/proc/{}/cmdline", pid), std::ios::binary);
  std::string command{std::istreambuf_iterator<char>(file), {}};
  if (command.ends_with('\0')) command.pop_back();
  if (pid <= 0 || command.empty()) return fmt::format("process {}", pid);
  std::replace(command.begin(), command.end(), '\0', ' ');
  if (command.size() > kMaxCommandLine) command.replace(kMaxCommandLine, std::string::npos, "...");
  return fmt::format("process {} ({})", pid, printable(command));
}

std::optional<pid_t> port_owner(uint32_t address, uint16_t port) {
  const std::set<uint64_t> inodes = sockets_of(address, port);
  if (inodes.empty()) return std::nullopt;
  for (const std::string& name : tools::names_in("/proc").value_or(std::vector<std::string>{})) {
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (error == std::errc() && end == name.data() + name.size() && has_one(pid, inodes))
      return pid;
  }
  return std::nullopt;
}

}  // namespace pkgdist::cli
