// Names of addresses, asked for on another thread.
#include "name_resolver.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace pkgdist::cli {
namespace {

using Names = std::vector<std::pair<uint32_t, std::string>>;
constexpr uint32_t kLoopback = 0x7F000001;  // of every /etc/hosts

Names wait_for_names(NameResolver& resolver) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < until) {
    if (Names names = resolver.take(); !names.empty()) return names;
    std::this_thread::yield();
  }
  return {};
}

TEST(NameResolver, tells_the_names_that_the_resolver_knows_each_once) {
  NameResolver resolver;
  EXPECT_TRUE(resolver.take().empty());
  resolver.ask(kLoopback);
  EXPECT_EQ(wait_for_names(resolver), (Names{{kLoopback, "localhost"}}));
  resolver.ask(kLoopback);
  EXPECT_TRUE(resolver.take().empty());
}

TEST(NameResolver, goes_without_waiting_for_an_answer) {
  NameResolver resolver;
  for (uint32_t i = 0; i < 100; ++i) resolver.ask(0xC6336400 + i);  // of no host
}

}  // namespace
}  // namespace pkgdist::cli
