// The log facility: trace records, their points, and the copies on standard error.
#include <set>

#include "pkgdist_log.h"
#include "recv_support.h"

using namespace pkgdist;

namespace {

class Log : public support::RecvTest {};

TEST_F(Log, trace_points_are_numbered_without_gaps_below_the_limit) {
  std::set<uint32_t> numbers;
  for (const log::TracePoint& point : log::catalogue()) numbers.insert(log::number_of(point));
  EXPECT_EQ(numbers.size(), log::catalogue().size());
  EXPECT_EQ(*numbers.rbegin(), numbers.size() - 1);
  EXPECT_LE(numbers.size(), log::kTracePointLimit);
}

TEST_F(Log, every_point_has_a_letter_per_directive) {
  for (const log::TracePoint& point : log::catalogue()) {
    size_t directives = 0;
    for (const char* at = point.format; *at != '\0'; ++at) {
      if (*at != '%') continue;
      if (at[1] == '%')
        ++at;
      else
        ++directives;
    }
    EXPECT_EQ(std::string(point.signature).size(), directives) << point.format;
  }
}

}  // namespace
