// The network interface that has an address or a name, and notices when that changes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace pkgdist::cli {

struct NetworkInterface {
  std::string name;
  unsigned index = 0;  // 0: no interface has the address
  unsigned flags = 0;  // IFF_...
  bool exists() const { return index != 0; }
  bool works() const;
  bool loopback() const;
};

// Nothing when the system does not tell.
std::optional<NetworkInterface> find_interface(uint32_t address);

// The IPv4 address of an interface: its first one, when it has several. Nothing when there is no
// interface of this name, or it has no address.
std::optional<uint32_t> address_of_interface(const std::string& name);

// What became of the interface, put in words for an operator.
struct InterfaceChange {
  uint32_t address = 0;
  NetworkInterface now;
  const char* state() const;  // "up", "down" or "gone"
  std::string text() const;
};

// Follows the interface of an address: it may go down, or go away and come back as another one.
//
// The kernel's notices about links and addresses only say that something has changed; what it is
// now is looked up. So it does not matter when a notice is lost, and several are one change.
class InterfaceWatch {
 public:
  // Where the system gives no notices, fd() is -1 and nothing ever changes.
  explicit InterfaceWatch(uint32_t address);
  ~InterfaceWatch();
  InterfaceWatch(const InterfaceWatch&) = delete;
  InterfaceWatch& operator=(const InterfaceWatch&) = delete;

  // Readable when take() has something to look at.
  int fd() const { return fd_; }
  // Tells what has changed since the last call or the construction; nothing when it is the same.
  std::optional<InterfaceChange> take();

 private:
  const uint32_t address_;
  int fd_ = -1;
  NetworkInterface known_;
};

}  // namespace pkgdist::cli
