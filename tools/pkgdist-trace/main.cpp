// pkgdist-trace: the log of a process, out of the trace file that it keeps in shared memory.
//
// The file holds all that is needed to read it, so that a crash can be looked at on another machine
// and with another version of this program. The process does not notice.
#include <fmt/core.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "cli_common.h"
#include "counted.h"
#include "json_events.h"
#include "printable.h"
#include "process_name.h"
#include "process_object.h"
#include "selection.h"
#include "stop_signals.h"
#include "trace_reader.h"

namespace pkgdist::trace {

namespace {

constexpr double kFollowSeconds = 0.2;  // from one look at the file to the next
constexpr int kPatience = 10;           // looks that a record may take to be finished

constexpr const char* kFooter = R"(
SOURCE is the number or name of a process, or a file; by default the only process that runs. Traces are
/dev/shm/pkgdist-trace.PID (or in PKGDIST_TRACE_DIR). They stay when a process is killed, and may be copied and
read elsewhere. A trace keeps the youngest records: 40000 errors and 80000 others.

Identifiers are printed as the lead prints them. Behind a status that is not 0 stands what it means.

A line: time, thread, level, place in the source, function, text. [cut]: text or numbers did not fit.
Levels: error; warning, which a process with verbosity 1 also prints on standard error; info.

TIME is 30s, 5m, 2h or 1d before now, 12:30 or 12:30:15.5 of today, 2026-11-20 12:30 (local time), or
@1795195628.5 in seconds since the epoch.

Examples
  pkgdist-trace pkgdist-node --level warning  errors and warnings
  pkgdist-trace --follow                      as it happens, until interrupted or the process ends
  pkgdist-trace 4711 --file 'pkgdist_data_*' --since 5m
  pkgdist-trace /tmp/pkgdist-trace.4711 --last 50 --json

Exit status: 0 done; 1 not done, or not all of it: the output could not be written; 2 an argument is wrong;
3 nothing could be started: there is no trace, it cannot be read, or several are there and none was named.
)";

struct Options {
  std::string source;
  std::string catalogue;  // file; empty: the trace's own
  Selection selection;
  size_t last = 0;  // 0: all
  bool follow = false;
  bool json = false;
};

using Kind = cli::Output::Kind;

bool stopped() {
  return cli::stop_signal() != 0;
}

uint64_t now_ns() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

bool runs(const TraceReader& reader) {
  return tools::owner_runs(reader.pid(), reader.file().path(), reader.file().inode(),
                           reader.created_ns());
}

// Of the processes of this name, or of all when it is empty: the only one that runs, or the only
// one. Nothing when there is none; an error that lists them when there are several.
std::optional<std::string> trace_of(const std::string& name) {
  std::vector<std::string> all, running;
  std::string list;
  for (const auto& found :
       tools::find_objects(tools::trace_directory(), QTRACE_LAYOUT_FILE_PREFIX)) {
    const std::string process = tools::process_name(found.pid);
    if (!name.empty() && process != name) continue;
    try {
      const TraceReader reader(found.path);
      const bool is_running = runs(reader);
      all.push_back(found.path);
      if (is_running) running.push_back(found.path);
      list += fmt::format("{}{} ({}{}{} since {})", list.empty() ? " " : ", ", found.pid, process,
                          process.empty() ? "" : ", ", is_running ? "running" : "ended,",
                          tools::local_time(reader.created_ns()));
    } catch (const tools::BadObject& bad) {
      cli::complain(bad.what());
    }
  }
  if (running.size() == 1) return running.front();
  if (all.size() == 1) return all.front();
  if (all.empty()) return {};
  throw std::runtime_error("several processes have traces, name one:" + list);
}

// A name is that of a process when one has it, otherwise that of a file.
std::string path_of(const std::string& source) {
  const bool number =
      !source.empty() && source.find_first_not_of("0123456789") == std::string::npos;
  if (number) return tools::trace_directory() + "/" QTRACE_LAYOUT_FILE_PREFIX + source;
  if (source.find('/') != std::string::npos) return source;
  const std::optional<std::string> found = trace_of(source);
  if (found) return *found;
  if (source.empty()) throw std::runtime_error("there is no trace in " + tools::trace_directory());
  if (::access(source.c_str(), F_OK) == 0) return source;
  throw std::runtime_error(
      fmt::format("no process '{}' has a trace, and there is no such file", source));
}

class Printer {
 public:
  Printer(const TraceReader& reader, const Options& options)
      : reader_(reader), options_(options), events_(options.json) {
    std::optional<Catalogue> given;
    if (!options.catalogue.empty()) given = TraceReader(options.catalogue).any_catalogue();
    if (!options.catalogue.empty() && !given)
      throw std::runtime_error(options.catalogue + ": has no catalogue");
    for (size_t i = 0; i < reader.rings().size(); ++i) catalogues_.push_back(catalogue(i, given));
  }

  // Whether the selection wants it; one of a point that the catalogue lacks is always shown.
  bool wants(const Record& record) const {
    const Point* point = point_of(record);
    return point == nullptr || options_.selection.wants(*point, record);
  }

  void print(const Record& record) const {
    const Point* point = point_of(record);
    const Point unknown = unknown_point(record);
    if (point == nullptr) point = &unknown;
    const std::string text = render(*point, record);
    const char* level = level_name(level_of(*point));
    const std::string file = cli::printable(point->file);
    const std::string function = cli::printable(point->function);
    if (options_.json) {
      events_.print(
          "record",
          {{"time", cli::rounded(static_cast<double>(record.realtime_ns) / kNsPerSecond, 6)},
           {"pid", reader_.pid()},
           {"thread", record.thread},
           {"ring", reader_.rings()[record.ring].name},
           {"number", record.number},
           {"level", level},
           {"file", file},
           {"line", point->line},
           {"function", function},
           {"text", text}},
          Kind::kResult);
      return;
    }
    cli::standard_output().line(
        fmt::format("{} {} {:<7} {}:{} {}: {}", tools::local_time(record.realtime_ns, 6),
                    record.thread, level, file.substr(file.rfind('/') + 1), point->line, function,
                    text),
        Kind::kResult);
  }

 private:
  Catalogue catalogue(size_t index, const std::optional<Catalogue>& given) const {
    const Ring& ring = reader_.rings()[index];
    const std::optional<Catalogue> found = given ? given : reader_.catalogue(index);
    if (!found)
      reader_.file().refuse(
          "has no catalogue, so that its records have no text; --catalogue takes "
          "one from another trace of the same build (" +
          ring.catalogue_id + ")");
    require_same_build(reader_.file(), ring, *found);
    return *found;
  }

  const Point* point_of(const Record& record) const {
    const std::vector<Point>& points = catalogues_[record.ring].points;
    return record.point < points.size() ? &points[record.point] : nullptr;
  }

  static Point unknown_point(const Record& record) {
    Point point;
    point.file = point.function = "?";
    point.format = "unknown point " + std::to_string(record.point);
    return point;
  }

  const TraceReader& reader_;
  const Options& options_;
  cli::JsonEvents events_;
  std::vector<Catalogue> catalogues_;  // of each ring
};

void print_wanted(const Printer& printer, const std::vector<Record>& records, size_t last) {
  std::vector<const Record*> wanted;
  for (const Record& record : records)
    if (printer.wants(record)) wanted.push_back(&record);
  const size_t skip = last > 0 && wanted.size() > last ? wanted.size() - last : 0;
  for (size_t i = skip; i < wanted.size(); ++i) printer.print(*wanted[i]);
}

int run(const Options& options) {
  TraceReader reader(path_of(options.source));
  const Printer printer(reader, options);
  const int patience = options.follow ? kPatience : 0;
  print_wanted(printer, reader.next(patience), options.last);
  if (!options.follow) return cli::kExitOk;
  for (bool running = true; running;) {
    // What nobody reads stays in the trace.
    if (!cli::standard_output().wait_written(stopped)) break;
    running = !cli::wait_for_stop(kFollowSeconds) && runs(reader);
    print_wanted(printer, reader.next(running ? kPatience : 0), 0);  // the last words too
  }
  if (reader.missed() > 0)
    cli::complain(fmt::format("{} overwritten or left out",
                              cli::counted(reader.missed(), "record was", "records were")));
  return cli::kExitOk;
}

uint64_t time_option(const std::string& text) {
  const auto time = parse_time(text, now_ns());
  if (!time) throw CLI::ValidationError(fmt::format("not a time: '{}'", text));
  return *time;
}

Level level_option(const std::string& text) {
  for (const Level level : {Level::kError, Level::kWarning, Level::kInfo})
    if (text == level_name(level)) return level;
  throw CLI::ValidationError(fmt::format("not error, warning or info: '{}'", text));
}

void add_options(CLI::App& app, Options& options) {
  Selection& selection = options.selection;
  app.footer(kFooter);
  app.set_version_flag("--version", cli::version());
  app.add_option("SOURCE", options.source, "whose trace")->type_name("PID|NAME|FILE");
  app.add_flag("--follow", options.follow, "go on with what comes");
  app.add_option("--last", options.last, "only the last N of those that are selected")
      ->type_name("N");
  app.add_option_function<std::string>(
         "--level", [&](const std::string& text) { selection.level = level_option(text); },
         "this level and above: error, warning, info")
      ->type_name("LEVEL [info]");
  app.add_option("--function", selection.function, "statements of these functions, * for any text")
      ->type_name("PATTERN");
  app.add_option("--file", selection.file, "statements of these source files")
      ->type_name("PATTERN");
  app.add_option_function<std::string>(
         "--since", [&](const std::string& text) { selection.since_ns = time_option(text); },
         "from this time on")
      ->type_name("TIME");
  app.add_option_function<std::string>(
         "--until", [&](const std::string& text) { selection.until_ns = time_option(text); },
         "up to this time")
      ->type_name("TIME");
  app.add_flag("--json", options.json, "one JSON object per record");
  app.add_option("--catalogue", options.catalogue,
                 "take the texts from this trace of the same build")
      ->type_name("FILE");
}

}  // namespace

}  // namespace pkgdist::trace

int main(int argc, char** argv) {
  using namespace pkgdist;
  CLI::App app("Shows the log that a process keeps in its trace file.", "pkgdist-trace");
  trace::Options options;
  trace::add_options(app, options);
  return cli::run_cli(app, argc, argv, [&] { return trace::run(options); });
}
