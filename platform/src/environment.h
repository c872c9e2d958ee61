// Switches in the environment: a variable is on when its value is exactly "1".
#ifndef PLATFORM_SRC_ENVIRONMENT_H
#define PLATFORM_SRC_ENVIRONMENT_H

#include <cstdlib>
#include <cstring>

namespace platform {

inline bool environment_switch(const char* name) noexcept {
  const char* value = std::getenv(name);
  return value != nullptr && std::strcmp(value, "1") == 0;
}

}  // namespace platform

#endif
