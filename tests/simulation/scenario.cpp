#include "scenario.h"

#include <algorithm>
#include <random>

#include "loss_model.h"

namespace pkgdist::sim {

namespace {

// All randomness of a scenario. Plain arithmetic, so that a seed means the same everywhere.
class Dice {
 public:
  explicit Dice(uint64_t seed) : random_(seed * 0x9E3779B97F4A7C15u + 1) {}
  uint64_t below(uint64_t limit) { return limit == 0 ? 0 : random_() % limit; }
  uint64_t between(uint64_t least, uint64_t most) { return least + below(most - least + 1); }
  uint32_t small(uint32_t limit) { return static_cast<uint32_t>(below(limit)); }
  bool chance(uint32_t percent) { return below(100) < percent; }
  double fraction(double most) { return most * static_cast<double>(below(1001)) / 1000; }

 private:
  std::mt19937_64 random_;
};

class Author {
 public:
  explicit Author(uint64_t seed) : dice_(seed) { scenario_.seed = seed; }

  Scenario write() {
    set_scene();
    draw_network();
    draw_files();
    const size_t deeds = dice_.between(3, 16);
    for (size_t i = 0; i < deeds; ++i) draw_work();
    if (!scenario_.calm) draw_trouble();
    std::stable_sort(scenario_.actions.begin(), scenario_.actions.end(),
                     [](const Action& a, const Action& b) { return a.at < b.at; });
    scenario_.forgets_at_once = dice_.chance(25);
    draw_queues();
    return std::move(scenario_);
  }

 private:
  void set_scene() {
    scenario_.calm = dice_.chance(12);
    scenario_.nodes = static_cast<uint32_t>(dice_.between(1, 4));
    scenario_.standby = dice_.chance(30);
    scenario_.chaos_ends = dice_.between(6, 30) * kSecond;
    constexpr uint32_t kSegmentSizes[] = {100, 256, 700, 1400, 1439};
    scenario_.segment_size = kSegmentSizes[dice_.below(std::size(kSegmentSizes))];
    constexpr uint64_t kRates[] = {0, 400'000, 2'000'000, 20'000'000, 400'000'000};
    scenario_.rate_bits = kRates[dice_.below(std::size(kRates))];
    for (uint32_t i = 0; i < scenario_.nodes; ++i)
      scenario_.node_clocks.push_back(dice_.chance(50) ? dice_.below(1'000'000) * kSecond : 0);
    for (uint64_t& clock : scenario_.lead_clocks) clock = dice_.below(1000) * kSecond;
    for (uint64_t& wall : scenario_.wall_seconds)
      wall = 1'700'000'000 + (dice_.chance(30) ? dice_.below(100) : 50);
    if (dice_.chance(60)) scenario_.yields_per_mille = static_cast<uint32_t>(dice_.between(1, 60));
    if (dice_.chance(40)) scenario_.caller_lag = dice_.between(1, 300) * kMillisecond;
  }

  void draw_network() {
    if (scenario_.calm) return;
    Network& network = scenario_.network;
    if (dice_.chance(75)) network.loss_down = dice_.fraction(0.2);
    if (dice_.chance(75)) network.loss_up = dice_.fraction(0.2);
    if (dice_.chance(15)) network.burst = dice_.fraction(0.02);
    if (dice_.chance(50)) network.duplicates = dice_.fraction(0.2);
    if (dice_.chance(50)) network.reorder = dice_.fraction(0.2);
    if (dice_.chance(50)) network.jitter_ns = dice_.between(1, 40'000) * 1000;
  }

  // Last of all: what a seed meant before there were queues it still means.
  void draw_queues() {
    Network& network = scenario_.network;
    if (dice_.chance(50)) {
      network.port_bytes = 100'000;
      network.port_bits_per_second = static_cast<double>(dice_.between(10, 1000)) * 1e6;
    }
    if (dice_.chance(60)) {
      network.socket_bytes = test::NodeSocket::kUsualSize;
      network.node_bytes_per_second = static_cast<double>(dice_.between(2, 200)) * 1e6;
    }
  }

  void add_file(std::string name, Role role, uint32_t size, uint32_t location = 1) {
    constexpr uint32_t kModes[] = {0644, 0755, 0600, 0640, 0666, 0700};
    FileSpec file;
    file.name = std::move(name);
    file.role = role;
    file.location = location;
    file.size = size;
    file.mode = kModes[dice_.below(std::size(kModes))];
    scenario_.files.push_back(std::move(file));
  }

  uint32_t draw_size() {
    const uint32_t segment = scenario_.segment_size;
    switch (dice_.below(8)) {
      case 0:
        return 0;
      case 1:
        return 1;
      case 2:
        return segment;
      case 3:
        return segment * static_cast<uint32_t>(dice_.between(1, 6)) + dice_.small(3) - 1;
      case 4:
        return segment * static_cast<uint32_t>(dice_.between(30, 300)) + dice_.small(segment);
      default:
        return dice_.small(20 * segment);
    }
  }

  std::string draw_name(size_t number) {
    const std::string plain = "file" + std::to_string(number);
    switch (dice_.below(10)) {
      case 0:
        return "dir/" + plain;
      case 1:
        return "deep/er/and/deeper/" + plain;
      case 2:
        return "name with spaces " + plain;
      case 3:
        return "\xC3\xBCml\xC3\xA4ut " + plain;
      case 4:
        return "double//slash/" + plain;
      case 5:
        return "./" + plain;
      case 6:
        return "%s%n" + plain + "..";
      case 7:
        return plain + std::string(dice_.between(1, 120), 'x');
      default:
        return plain;
    }
  }

  void draw_files() {
    const size_t shared = dice_.between(1, 10);
    for (size_t i = 0; i < shared; ++i) add_file(draw_name(i), Role::kShared, draw_size());
    if (dice_.chance(40))
      for (uint64_t i = dice_.between(1, 2); i > 0; --i)
        add_file("deleted" + std::to_string(i), Role::kDeleted, draw_size());
    if (dice_.chance(50))
      for (uint64_t i = dice_.between(1, 3); i > 0; --i) {
        add_file("own" + std::to_string(i), Role::kOwn, draw_size());
        scenario_.files.back().owner = dice_.small(scenario_.nodes);
      }
    if (dice_.chance(25)) add_file("object", Role::kShared, draw_size(), 2);
    if (dice_.chance(15)) {
      add_file("clash", Role::kClash, draw_size());
      add_file("clash/inner", Role::kClash, draw_size());
    }
    // Many at once.
    if (dice_.chance(10))
      for (int i = 0; i < 60; ++i) add_file("many/" + std::to_string(i), Role::kShared, i * 7u);
    // Links last, as a push brings them.
    if (dice_.chance(40)) {
      add_file("link", Role::kShared, 0);
      scenario_.files.back().symlink = true;
    }
  }

  uint64_t when() { return dice_.between(200, scenario_.chaos_ends / kMillisecond) * kMillisecond; }

  Action& act(Deed deed, uint64_t at) {
    Action& action = scenario_.actions.emplace_back();
    action.deed = deed;
    action.at = at;
    return action;
  }

  // A file of one of the roles; npos when there is none.
  size_t draw_file(std::initializer_list<Role> roles, uint32_t location = 0) {
    std::vector<size_t> fit;
    for (size_t i = 0; i < scenario_.files.size(); ++i) {
      const FileSpec& file = scenario_.files[i];
      if (std::find(roles.begin(), roles.end(), file.role) == roles.end()) continue;
      if (location == 0 || file.location == location) fit.push_back(i);
    }
    return fit.empty() ? SIZE_MAX : fit[dice_.below(fit.size())];
  }

  uint32_t draw_type() { return dice_.chance(25) ? 6 : 1; }
  uint32_t draw_mask() {
    return dice_.chance(60) ? 0 : 1 + dice_.small((1u << scenario_.nodes) - 1);
  }

  void draw_push() {
    Action& action = act(Deed::kPush, dice_.chance(40) ? 300 * kMillisecond : when());
    action.mask = draw_mask();
    action.type = draw_type();
    const uint32_t location = dice_.chance(85) ? 1 : 2;
    for (size_t i = 0; i < scenario_.files.size(); ++i) {
      const FileSpec& file = scenario_.files[i];
      if (file.role != Role::kOwn && file.location == location && dice_.chance(80))
        action.files.push_back(i);
    }
  }

  void draw_get() {
    Action& action = act(Deed::kGet, when());
    action.who = dice_.small(scenario_.nodes);
    action.type = draw_type();
    action.files = {draw_file({Role::kShared, Role::kDeleted, Role::kClash})};
  }

  void draw_get_and_cancel() {
    const size_t file = draw_file({Role::kOwn});
    if (file == SIZE_MAX) return draw_get();
    // One at a time: a withdrawn request must be the only wish for its file.
    for (const Action& other : scenario_.actions)
      if (other.deed == Deed::kGetAndCancel && other.files[0] == file) return draw_get();
    Action& action = act(Deed::kGetAndCancel, when());
    action.who = scenario_.files[file].owner;
    action.type = draw_type();
    action.files = {file};
    action.number = dice_.chance(70) ? dice_.below(3000) * kMillisecond : 0;
  }

  void draw_message(Deed deed) {
    constexpr uint64_t kSizes[] = {1, 20, 1390, 1391, 2780, 9000, 60'000};
    Action& action = act(deed, when());
    action.who = dice_.small(scenario_.nodes);
    action.mask = draw_mask();
    action.type = dice_.chance(30) ? 1 : 0;
    action.number = kSizes[dice_.below(std::size(kSizes))];
  }

  void draw_work() {
    switch (dice_.below(12)) {
      case 0:
      case 1:
      case 2:
        return draw_push();
      case 3:
      case 4:
        return draw_get();
      case 5:
        return draw_get_and_cancel();
      case 6:
        return draw_message(Deed::kMessage);
      case 7:
      case 8:
        return draw_message(Deed::kNodeMessage);
      case 9: {
        const size_t file = draw_file({Role::kDeleted});
        if (file == SIZE_MAX) return draw_push();
        act(Deed::kDelete, when()).files = {file};
        return;
      }
      case 10: {
        const size_t file = draw_file({Role::kShared, Role::kDeleted});
        if (file != SIZE_MAX) act(Deed::kUpdate, when()).files = {file};
        return;
      }
      default:
        act(dice_.chance(50) ? Deed::kGetUnknown : Deed::kCancelPush, when()).who =
            dice_.small(scenario_.nodes);
    }
  }

  // Something bad for a while.
  void pair(Deed begin, Deed end, uint32_t who, uint64_t least, uint64_t most, uint32_t mask = 0,
            uint32_t type = 0) {
    const uint64_t at = when();
    for (const auto& [deed, time] :
         {std::pair{begin, at}, std::pair{end, at + dice_.between(least, most)}}) {
      Action& action = act(deed, time);
      action.who = who;
      action.mask = mask;
      action.type = type;
    }
  }

  void draw_trouble() {
    const uint64_t short_time = 500 * kMillisecond;
    for (uint64_t i = dice_.below(4); i > 0; --i) {
      const uint32_t node = dice_.small(scenario_.nodes);
      const uint32_t lead = scenario_.standby ? dice_.small(2) : 0;
      switch (dice_.below(8)) {
        case 0:
        case 1:
          pair(Deed::kKillNode, Deed::kStartNode, node, 1, 8 * kSecond);
          break;
        case 2:
          pair(Deed::kStopNode, Deed::kStartNode, node, 1, 4 * kSecond);
          break;
        case 3:
          pair(Deed::kKillLead, Deed::kStartLead, lead, short_time, 15 * kSecond);
          break;
        case 4:
          pair(Deed::kSuspendLead, Deed::kResumeLead, lead, short_time, 15 * kSecond);
          break;
        case 5:
          pair(Deed::kOutage, Deed::kOutageOver, node, short_time, 12 * kSecond, 0,
               1 + dice_.small(3));
          break;
        case 6:
          if (scenario_.standby)
            pair(Deed::kSplit, Deed::kSplitOver, 0, kSecond, 15 * kSecond,
                 dice_.small(1u << scenario_.nodes));
          break;
        default: {
          const size_t file = draw_file({Role::kShared});
          Action& action = act(Deed::kBreak, when());
          action.files = {file};
          action.number = dice_.below(3);
        }
      }
    }
  }

  Dice dice_;
  Scenario scenario_;
};

const char* word(Deed deed) {
  constexpr const char* kWords[] = {
      "push",        "get",       "get unknown", "get and cancel", "delete",      "cancel push",
      "update",      "break",     "message",     "node message",   "kill node",   "stop node",
      "start node",  "kill lead", "start lead",  "suspend lead",   "resume lead", "outage",
      "outage over", "split",     "split over"};
  return kWords[static_cast<size_t>(deed)];
}

}  // namespace

Scenario draw_scenario(uint64_t seed) {
  return Author(seed).write();
}

std::string describe(const Scenario& scenario, const Action& action) {
  std::string text = word(action.deed);
  text += " who " + std::to_string(action.who) + " mask " + std::to_string(action.mask) + " type " +
          std::to_string(action.type) + " number " + std::to_string(action.number);
  for (size_t file : action.files) text += " '" + scenario.files[file].name + "'";
  return text;
}

std::string describe(const Scenario& scenario) {
  const Network& network = scenario.network;
  std::string text =
      "seed " + std::to_string(scenario.seed) + ": " + std::to_string(scenario.nodes) + " nodes" +
      (scenario.standby ? ", a standby" : "") + (scenario.calm ? ", calm" : "") + "; loss " +
      std::to_string(network.loss_down) + " down " + std::to_string(network.loss_up) +
      " up, bursts " + std::to_string(network.burst) + ", duplicates " +
      std::to_string(network.duplicates) + ", reorder " + std::to_string(network.reorder) +
      ", jitter " + std::to_string(network.jitter_ns / 1000) + " us; ports of " +
      std::to_string(network.port_bytes) + " bytes at " +
      std::to_string(network.port_bits_per_second / 1e6) + " Mbit/s, sockets of " +
      std::to_string(network.socket_bytes) + " bytes at " +
      std::to_string(network.node_bytes_per_second / 1e6) + " MB/s; segments of " +
      std::to_string(scenario.segment_size) + ", rate " + std::to_string(scenario.rate_bits) +
      "; yields " + std::to_string(scenario.yields_per_mille) + " per mille, caller lag " +
      std::to_string(scenario.caller_lag / kMillisecond) + " ms" +
      (scenario.forgets_at_once ? ", files forgotten at once" : "") + "\n";
  for (const FileSpec& file : scenario.files)
    text += "  file " + std::to_string(file.location) + ":'" + file.name + "' of " +
            std::to_string(file.size) + " bytes, role " +
            std::to_string(static_cast<int>(file.role)) + (file.symlink ? ", link" : "") + "\n";
  for (const Action& action : scenario.actions)
    text += "  at " + std::to_string(action.at / kMillisecond) +
            " ms: " + describe(scenario, action) + "\n";
  return text;
}

}  // namespace pkgdist::sim
