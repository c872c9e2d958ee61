#include "release_relay.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "heard_nodes.h"

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;

}  // namespace

ReleaseRelay::ReleaseRelay(lead::Lead& lead, NodePrograms& programs)
    : lead_(lead), programs_(programs) {
  programs_.on_release_state = [this](uint32_t node, const cli::ReleaseState& state) {
    for (const Client& client : clients_)
      client->say(
          {{"event", "release-told"}, {"node", node}, {"state", cli::release_state_text(state)}},
          cli::Output::Kind::kEvent);
  };
}

ReleaseRelay::~ReleaseRelay() {
  programs_.on_release_state = nullptr;
}

void ReleaseRelay::begin(const Client& client) {
  client->begin(true);
  clients_.push_back(client);
}

bool ReleaseRelay::on_line(const Client& client, const Json& line, lead::Time now) {
  if (std::find(clients_.begin(), clients_.end(), client) == clients_.end()) return false;
  if (line.contains("heard")) {
    const HeardNodes heard = heard_nodes(lead_, programs_, line.at("heard").get<uint32_t>());
    client->say({{"event", "heard"},
                 {"takers", heard.takers},
                 {"others", heard.others},
                 {"names", heard.names}});
  }
  if (!line.contains("order")) return true;
  const std::string text = line.at("order").get<std::string>();
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  if (!cli::parse_release_order({bytes, text.size()}))
    throw std::runtime_error("this is no order about a release");
  (void)programs_.order(text, line.at("nodes").get<std::vector<uint32_t>>(), now);
  return true;
}

void ReleaseRelay::run() {
  clients_.remove_if([](const Client& client) { return client->gone(); });
}

}  // namespace pkgdist::lead_program
