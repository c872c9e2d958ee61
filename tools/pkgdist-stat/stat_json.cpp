#include "stat_json.h"

#include <nlohmann/json.hpp>

#include "health.h"
#include "json_events.h"

namespace pkgdist::stat {

namespace {

using Json = nlohmann::ordered_json;

double in_seconds(uint64_t ns) {
  return cli::rounded(static_cast<double>(ns) / kNsPerSecond, cli::kSecondDecimals);
}

Json entry_json(Kind kind, const Entry& entry, const Entry* before) {
  Json json = {{"label", entry.label}};
  if (kind == Kind::kCounters) {
    json["count"] = entry.count;
    if (before != nullptr) json["added"] = static_cast<uint32_t>(entry.count - before->count);
  } else if (kind == Kind::kHistograms) {
    json["count"] = entry.total();
    json["buckets"] = entry.buckets;
    if (before != nullptr) json["added"] = static_cast<uint32_t>(entry.total() - before->total());
  } else {
    json["current"] = entry.current;
    json["mark"] = entry.mark;
    json["mark_time"] =
        entry.mark_realtime_ns == 0 ? Json() : Json(in_seconds(entry.mark_realtime_ns));
  }
  return json;
}

const char* kind_name(Kind kind) {
  if (kind == Kind::kCounters) return "counters";
  return kind == Kind::kHistograms ? "histograms" : "watermarks";
}

Json sockets_json(const Sample& sample, const Sample* earlier) {
  if (!sample.sockets) return {};
  Json list = Json::array();
  for (const UdpSocket& socket : *sample.sockets) {
    Json json = {{"local", socket.local}, {"queued", socket.queued_bytes}, {"drops", socket.drops}};
    if (const UdpSocket* before = earlier_socket(earlier, socket))
      json["added"] = socket.drops - before->drops;
    list.push_back(json);
  }
  return list;
}

Json health_json(const Sample& sample, const Sample* earlier) {
  Json list = Json::array();
  for (const Health& one : health_of(sample, earlier))
    list.push_back(
        {{"subject", one.subject}, {"level", health_level_name(one.level)}, {"text", one.text}});
  return list;
}

}  // namespace

Json process_json(const Statistics& statistics) {
  return {{"pid", statistics.pid},
          {"process", statistics.process},
          {"running", statistics.running},
          {"since", in_seconds(statistics.created_ns)}};
}

Json json_of(const Sample& sample, const Sample* earlier, const TextOptions& options) {
  Json json = process_json(sample.statistics);
  if (earlier != nullptr) json["seconds"] = in_seconds(sample.monotonic_ns - earlier->monotonic_ns);
  json["health"] = health_json(sample, earlier);
  json["sockets"] = sockets_json(sample, earlier);
  json["tables"] = Json::array();
  for (const Table& table : sample.statistics.tables) {
    Json entries = Json::array();
    for (size_t i = 0; i < table.entries.size(); ++i) {
      const Entry* before = earlier_entry(earlier, table, i);
      if (is_wanted(table.entries[i], before, options.nonzero, options.changed))
        entries.push_back(entry_json(table.kind, table.entries[i], before));
    }
    json["tables"].push_back({{"application", table.application},
                              {"table", table.name},
                              {"kind", kind_name(table.kind)},
                              {"entries", entries}});
  }
  return json;
}

}  // namespace pkgdist::stat
