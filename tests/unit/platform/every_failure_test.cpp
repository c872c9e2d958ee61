// Every failure of the platform layer, in turn: each call that its functions make fails once. The
// function reports it with the call's own error number and leaves nothing behind, its repetition
// succeeds, and everything works afterwards. The calls whose failure is absorbed are listed with
// the reason.
//
// Each run is a process of its own: statistics and traces are made once per process.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "child.h"
#include "faults.h"
#include "platform/fts.h"
#include "platform/inst_common.h"
#include "platform/levm.h"
#include "platform/nodeid.h"
#include "platform/qtrace.h"
#include "platform/qtrace_catalogue.h"
#include "platform/ship.h"
#include "platform/ship_layout.h"
#include "temp_dir.h"
#include "trace_reader.h"

namespace {

using support::Call;
namespace faults = support::faults;
namespace fs = std::filesystem;

constexpr int kNotReached = 100;  // exit status of a run in which the call was not made so often
constexpr unsigned kMostCalls = 100;

size_t open_descriptors() {
  const fs::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all))) - 1;
}

bool is_allocation(Call call) {
  return call == Call::kMalloc || call == Call::kCalloc || call == Call::kStrdup ||
         call == Call::kNew;
}

// The error number that a function reports when this call fails with `error`.
int reported_error(Call call, int error) {
  if (is_allocation(call)) return ENOMEM;
  // A leftover that could not be removed is in the way of what is made in its place.
  return call == Call::kUnlink || call == Call::kShmUnlink ? EEXIST : error;
}

// One run of a scenario under one fault.
class FaultyRun {
 public:
  FaultyRun(Call call, unsigned nth, int error, bool absorbed)
      : call_(call), nth_(nth), error_(reported_error(call, error)), absorbed_(absorbed) {
    faults::fail(call, nth, error);
  }

  // A step that returns 0 or an error number. The failure shows here or is absorbed; the step then
  // succeeds when it is made again.
  void step(const char* what, const std::function<int()>& make) {
    const bool before = reached();
    const int result = make();
    const bool here = !before && reached();
    if (!here || absorbed_) {
      EXPECT_EQ(result, 0) << what;
      return;
    }
    EXPECT_EQ(result, error_) << what << " does not tell of its failure";
    EXPECT_EQ(make(), 0) << what << ", made again";
  }
  // No failure from here on.
  void end() {
    reached_ = reached();
    faults::clear();
  }
  bool reached() const { return reached_ || faults::calls(call_) >= nth_; }

 private:
  Call call_;
  unsigned nth_;
  int error_;
  bool absorbed_;
  bool reached_ = false;
};

int failures() {
  return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

int errno_unless(bool success) {
  return success ? 0 : errno;
}

struct Absorbed {
  Call call;
  const char* reason;
};

class PlatformFailures : public testing::Test {
 protected:
  using Scenario = std::function<void(FaultyRun&)>;

  // Sweeps all calls of a scenario. Each kind is either reported to the caller or absorbed.
  void sweep(const std::set<Call>& reported, const std::vector<Absorbed>& absorbed,
             const Scenario& scenario, int error = EIO) {
    std::set<Call> silent;
    for (const Absorbed& one : absorbed) silent.insert(one.call);
    int injected = 0;
    for (int i = 0; i < static_cast<int>(Call::kCount); ++i) {
      const auto call = static_cast<Call>(i);
      // A std::mutex that cannot be taken ends the process; default ones never fail.
      if (call == Call::kMutexLock || call == Call::kMutexUnlock) continue;
      const unsigned times = sweep_call(call, error, silent.count(call) != 0, scenario);
      const bool listed = reported.count(call) != 0 || silent.count(call) != 0;
      EXPECT_EQ(times > 0, listed) << support::name_of(call) << " is made " << times << " times";
      injected += static_cast<int>(times);
    }
    RecordProperty("injected_failures", injected);
    std::printf("injected failures: %d\n", injected);
  }

  const TempDir& directory() const { return directory_; }

 private:
  static unsigned sweep_call(Call call, int error, bool absorbed, const Scenario& scenario) {
    unsigned nth = 1;
    for (; nth < kMostCalls; ++nth) {
      const int status = run(call, nth, error, absorbed, scenario);
      if (status == kNotReached) break;
      EXPECT_EQ(status, 0) << support::name_of(call) << " " << nth;
      if (status != 0) break;
    }
    return nth - 1;
  }

  static int run(Call call, unsigned nth, int error, bool absorbed, const Scenario& scenario) {
    (void)std::fflush(stdout);
    Child child([&] {
      alarm(20);
      const int failed_before = failures();
      const size_t before = open_descriptors();
      FaultyRun one(call, nth, error, absorbed);
      scenario(one);
      one.end();
      EXPECT_EQ(open_descriptors(), before) << "a descriptor is left over";
      (void)std::fflush(stdout);
      if (failures() != failed_before) return 1;
      return one.reached() ? 0 : kNotReached;
    });
    return child.wait();
  }

  TempDir directory_;
};

void drain(qitc_handle_t channel) {
  void* entry = nullptr;
  while (qitc_get(channel, &entry) == 0) {
  }
}

TEST_F(PlatformFailures, of_a_loop_and_its_channels) {
  const auto scenario = [](FaultyRun& run) {
    levm_handle_t loop = nullptr;
    run.step("levm_create", [&] { return errno_unless((loop = levm_create()) != nullptr); });
    ASSERT_NE(loop, nullptr);
    qitc_handle_t channel = nullptr;
    run.step("qitc_handle_create", [&] { return qitc_handle_create(2, 0, 0, 0, &channel); });
    ASSERT_NE(channel, nullptr);
    run.step("attach", [&] { return levm_attach_qitc_handle(loop, channel, drain, 2, 0, 0, 0); });
    int entries[20];
    for (int& entry : entries)  // more than the channel was made for
      run.step("qitc_put", [&] { return qitc_put(channel, &entry); });
    run.step("levm_run_once", [&] { return errno_unless(levm_run_once(loop, 0) >= 0); });
    run.step("levm_run_once", [&] {
      const int ran = levm_run_once(loop, 0);
      EXPECT_LE(ran, 0) << "work that is not there";
      return errno_unless(ran >= 0);
    });
    levm_stop(loop);
    run.step("levm_run_once", [&] { return errno_unless(levm_run_once(loop, 1) >= 0); });
    run.step("detach", [&] { return levm_attach_qitc_handle(loop, channel, nullptr, 0, 0, 0, 0); });
    run.end();
    // Everything still works.
    EXPECT_EQ(levm_attach_qitc_handle(loop, channel, drain, 2, 0, 0, 0), 0);
    EXPECT_EQ(qitc_put(channel, entries), 0);
    EXPECT_EQ(levm_run_once(loop, 0), 1);
    void* none = nullptr;
    EXPECT_EQ(qitc_get(channel, &none), -1);
    EXPECT_EQ(qitc_handle_destroy(channel), 0);
    levm_destroy(loop);
  };
  const std::vector<Absorbed> absorbed = {
      {Call::kClose, "what is closed is gone either way"},
      {Call::kRead, "an event that could not be read is read again after the next pass"},
      {Call::kClockGettime, "a clock that cannot be read says 0: a wait may end early"}};
  sweep({Call::kMalloc, Call::kNew, Call::kWrite, Call::kEventfd, Call::kEpollCreate,
         Call::kEpollCtl, Call::kEpollWait},
        absorbed, scenario);
}

TEST_F(PlatformFailures, of_node_identities) {
  sweep({Call::kNew}, {}, [](FaultyRun& run) {
    nodeid_handle_t identity = nullptr;
    run.step("nodeid_create", [&] { return nodeid_create(1, 2, 3, &identity); });
    char text[32];
    EXPECT_EQ(nodeid_to_str_external(identity, text, sizeof text), 0);
    EXPECT_STREQ(text, "1/2/3");
    nodeid_destroy(identity);
  });
}

TEST_F(PlatformFailures, of_new_directories_and_links) {
  sweep({Call::kStrdup, Call::kMkdir, Call::kSymlink}, {}, [&](FaultyRun& run) {
    fs::current_path(directory().path());
    fs::remove_all("a");
    fs::remove("link");
    run.step("instcomm_create_filepath_dirs",
             [&] { return errno_unless(instcomm_create_filepath_dirs("a/b/file") == 0); });
    run.step("inst_symlink", [&] { return errno_unless(inst_symlink("file", "link") == 0); });
    EXPECT_TRUE(fs::is_directory("a/b"));
    EXPECT_EQ(fs::read_symlink("link"), "file");
  });
}

TEST_F(PlatformFailures, of_directories_that_are_there) {
  fs::create_directories(directory() / "a/b");
  sweep({Call::kStrdup, Call::kStat}, {{Call::kMkdir, "what is there needs no making"}},
        [&](FaultyRun& run) {
          const std::string path = directory() / "a/b/file";
          run.step("instcomm_create_filepath_dirs",
                   [&] { return errno_unless(instcomm_create_filepath_dirs(path.c_str()) == 0); });
        });
}

TEST_F(PlatformFailures, of_statistics) {
  const std::vector<Absorbed> absorbed = {
      {Call::kClose, "the mapping stays"},
      {Call::kAtexit, "the object stays behind, as after a crash"},
      {Call::kClockGettime, "the object says that it was made at 0"}};
  sweep({Call::kShmUnlink, Call::kShmOpen, Call::kFtruncate, Call::kFallocate, Call::kMmap},
        absorbed, [](FaultyRun& run) {
          const uint32_t parameter = 2;
          ship_entry entries[] = {{"FIRST          ", 0}, {"SECOND         ", 0}};
          void* block = nullptr;
          const std::string object =
              "/dev/shm" SHIP_LAYOUT_OBJECT_PREFIX + std::to_string(getpid());
          std::ofstream(object) << "a leftover of this number's last owner";
          run.step("ship_register", [&] {
            const int error =
                ship_register("APPLICATION", "table", "process", 0, &parameter, entries, 2, &block);
            EXPECT_EQ(error == 0, block != nullptr);
            EXPECT_EQ(fs::exists(object), error == 0 || error == EEXIST);
            return error;
          });
          ASSERT_NE(block, nullptr);
          std::memset(block, 1, size_t{2} * 20);
          EXPECT_EQ(fs::file_size(object), 256u * 1024u);
          EXPECT_TRUE(fs::remove(object));
        });
}

// It stays open for the life of the process.
void close_trace_file(const std::string& directory) {
  const faults::Paused paused;
  for (int fd = 3; fd < 64; ++fd) {
    std::error_code error;
    const std::string target = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
    if (target.starts_with(directory)) close(fd);
  }
}

TEST_F(PlatformFailures, of_traces) {
  setenv("PKGDIST_TRACE_DIR", directory().path().c_str(), 1);
  const std::vector<Absorbed> absorbed = {
      {Call::kAtexit, "the file stays behind, as after a crash"},
      {Call::kAtfork, "records of a later child carry its parent's thread number"},
      {Call::kClockGettime, "the record says that it was made at 0"},
      {Call::kUnlink, "the trace has no name"},
      {Call::kMunmap, "the bytes of the catalogue stay mapped"}};
  sweep({Call::kCalloc, Call::kOpen, Call::kFtruncate, Call::kFallocate, Call::kMmap}, absorbed,
        [&](FaultyRun& run) {
          const std::string file =
              directory() / (QTRACE_LAYOUT_FILE_PREFIX + std::to_string(getpid()));
          std::ofstream(file) << "a leftover of this number's last owner";
          qtrace_handle_t trace = 0;
          for (const char* name : {"one", "two"})
            run.step("qtrace_open_internal", [&] {
              return qtrace_open_internal(name, 10, 5, "path", "catalogue", 0, &trace);
            });
          const qtrace_point point{"a.cpp", "f", "%d", "d", 1, 2, 3};
          run.step("qtrace_describe", [&] { return qtrace_describe(trace, &point, 1); });
          // A record is left out, and counted, when there is no space for it.
          uint64_t lost = 0;
          const auto record = [&] {
            qtrace_internal(trace, 1, 2, 3, "d", "%d", 4);
            const faults::Paused paused;
            if (fs::file_size(file) < sizeof(qtrace_layout_header)) return 0;  // the leftover's
            const TraceReader reader(directory().path(), getpid());
            const uint64_t before = std::exchange(lost, reader.ring("two")->lost);
            return lost == before ? 0 : EIO;
          };
          run.step("qtrace_internal", record);
          EXPECT_EQ(record(), 0);
          EXPECT_TRUE(fs::remove(file));
          close_trace_file(directory().path());
        });
}

}  // namespace
