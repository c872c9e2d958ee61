// The statistics tables as operators and the statistics library see them: labels are shown to
// people and must not drift.
#include <cstring>
#include <set>

#include "pkgdist_stats.h"
#include "recv_support.h"

using namespace pkgdist;
using namespace support;

extern "C" const char* __progname;

namespace {

using Labels = std::vector<std::string>;
const Labels kCrtCountersLabels = {
    "MC PING RECV",    "MC MSG RECV",     "MC PING RPLYSNT", "MC ACK SENT",     "MC NACK SENT",
    "MC RECVFROM ERR", "MC BAD PKT RECV", "MC OUTOFSEQ RCV", "MC DUP DROP RCV", "MC CARDCLS DROP",
    "MC LEAD FO DROP", "MC MSG TIMEOUT",  "MC MSG MAX RTRY", "UC MSG RECV",     "UC ACK RECV",
    "UC NACK RECV",    "UC MSG SENT",     "UC ACK SENT",     "UC NACK SENT",    "UC RXMT MSGSENT",
    "UC RECVFROM ERR", "UC BAD PKT RECV", "UC OUTOFSEQ RCV", "UC DUP DROP RCV", "UC MSG TIMEOUT",
    "UC MSG MAX RTRY", "UC ACK TIMEOUT",  "UC ACK TO MAX",   "SELECT FAIL"};
const Labels kCrtHistogramsLabels = {"UC SEND TIME", "UC ACK TIME", "MC RX TIME", "UC RX TIME"};
const Labels kCrsCountersLabels = {
    "UC ADD MSG",    "UC DELETE MSG", "RX ADD MC MSG",   "RX OOS ADD MC", "RX DELETE MC MS",
    "RX ADD UC MSG", "RX OOS ADD UC", "RX DELETE UC MS", "MSG RECV CB",   "UC STATUS CB",
    "LCHG CB",       "NEW LEAD",      "NEW PID"};
const Labels kCrsHistogramsLabels = {"MSG QITC TIME", "STATUS QITCTIME", "LCHG QITC TIME"};
const Labels kDrtCountersLabels = {
    "MC RX RECV",      "MC FILE INFO",    "MC SINGLE SEG",   "MC SEGMENT",      "MC MISS DONE",
    "MC SEND FILE",    "MC SEND CANCEL",  "MC SEND DELETE",  "UC SNDREQ SENT",  "UC SNDSINGLSENT",
    "UC SNDDONE SENT", "MC RECVFROM ERR", "MC SELECT FAIL",  "MC BAD PKT RECV", "MC OUTOFSEQ RCV",
    "FILE INFO DROP",  "FILE SEG DUP",    "FILE NOT FOUND",  "FILE SEG TOOBIG", "FILE INFO TMOUT",
    "FILE MISSSEG TO", "FILE SEG TMOUT",  "FILE NOT DNE TO", "FILE TIMEOUT"};
const Labels kDrtWatermarksLabels = {"FILE QUEUE"};
const Labels kDrtHistogramsLabels = {"UC SEND TIME", "MC RX TIME", "RX QUEUE TIME",
                                     "FILE INFO TIME", "MISS SEG TIME"};
const Labels kDrsCountersLabels = {
    "FILE ADD",    "FILE REMOVE",   "XAXT ADD",     "FILE ERROR",      "FILE BADSTATRCV",
    "FILE SKIP",   "FILE START CB", "FILE XFER CB", "FILE DONE CB",    "STAT ADD",
    "STAT REMOVE", "RX THRD START", "RX THRD STOP", "FILE THRD START", "FILE THRD STOP"};
const Labels kDrsHistogramsLabels = {"FILE STAT TIME",  "FILE OPEN TIME",  "FILE WRITE TIME",
                                     "FILE RENAMETIME", "FILE UNLINKTIME", "FILE QITC TIME",
                                     "SYMLINK TIME"};

struct Expected {
  const StatTable& table;
  const char* application;
  const char* name;
  uint32_t kind;
  const Labels& labels;
  void** handle;
};

const Expected kTables[] = {{kCrtCounters, "PKGDIST_CRT", "CRT_Counters", 0, kCrtCountersLabels,
                             &pkgdist_crt_ship_counter_hdl},
                            {kCrtHistograms, "PKGDIST_CRT", "CRT_Histograms", 31,
                             kCrtHistogramsLabels, &pkgdist_crt_ship_histogram_hdl},
                            {kCrsCounters, "PKGDIST_CRS", "CRS_Counters", 1, kCrsCountersLabels,
                             &pkgdist_crs_ship_counter_hdl},
                            {kCrsHistograms, "PKGDIST_CRS", "CRS_Histograms", 31,
                             kCrsHistogramsLabels, &pkgdist_crs_ship_histogram_hdl},
                            {kDrtCounters, "PKGDIST_DRT", "DRT_Counters", 0, kDrtCountersLabels,
                             &pkgdist_drt_ship_counter_hdl},
                            {kDrtWatermarks, "PKGDIST_DRT", "DRT_Watermarks", 32,
                             kDrtWatermarksLabels, &pkgdist_drt_ship_watermark_hdl},
                            {kDrtHistograms, "PKGDIST_DRT", "DRT_Histograms", 31,
                             kDrtHistogramsLabels, &pkgdist_drt_ship_histogram_hdl},
                            {kDrsCounters, "PKGDIST_DRS", "DRS_Counters", 1, kDrsCountersLabels,
                             &pkgdist_drs_ship_counter_hdl},
                            {kDrsHistograms, "PKGDIST_DRS", "DRS_Histograms", 31,
                             kDrsHistogramsLabels, &pkgdist_drs_ship_histogram_hdl}};

class StatTables : public RecvTest {};

TEST_F(StatTables, names_kinds_and_sizes_are_fixed) {
  const uint32_t sizes[] = {29, 4, 13, 3, 24, 1, 5, 15, 7};
  for (size_t i = 0; i < std::size(kTables); ++i) {
    const Expected& expected = kTables[i];
    EXPECT_STREQ(expected.table.application, expected.application);
    EXPECT_STREQ(expected.table.name, expected.name);
    EXPECT_EQ(expected.table.kind, expected.kind) << expected.name;
    EXPECT_EQ(expected.table.count, sizes[i]) << expected.name;
    EXPECT_EQ(expected.table.handle, expected.handle) << expected.name;
  }
}

TEST_F(StatTables, labels_are_padded_to_15_characters_and_a_zero) {
  for (const Expected& expected : kTables) {
    ASSERT_EQ(expected.table.count, expected.labels.size()) << expected.name;
    for (size_t i = 0; i < expected.labels.size(); ++i) {
      std::string padded = expected.labels[i];
      padded.resize(15, ' ');
      padded.push_back('\0');
      EXPECT_EQ(std::string(expected.table.entries[i].name, 16), padded) << expected.name;
    }
  }
}

TEST_F(StatTables, only_the_watermark_has_an_entry_word_of_1) {
  for (const Expected& expected : kTables)
    for (uint32_t i = 0; i < expected.table.count; ++i)
      EXPECT_EQ(expected.table.entries[i].word, expected.table.kind == 32 ? 1u : 0u);
}

TEST_F(StatTables, registration_passes_the_table_the_process_and_the_value_2) {
  for (const Expected& expected : kTables) {
    *expected.handle = nullptr;
    ASSERT_EQ(register_table(expected.table), 0);
    const Registration& made = registry::registrations().back();
    EXPECT_EQ(made.application, expected.application);
    EXPECT_EQ(made.table, expected.name);
    EXPECT_EQ(made.process, __progname);
    EXPECT_EQ(made.kind, expected.kind);
    EXPECT_EQ(made.parameter, 2u);
    EXPECT_EQ(made.labels.size(), expected.labels.size());
    EXPECT_NE(*expected.handle, nullptr);
  }
}

TEST_F(StatTables, a_failed_registration_leaves_the_handle_null) {
  for (const Expected& expected : kTables) {
    faults::fail(Call::kShipRegister, 1, ENOSPC);
    EXPECT_EQ(register_table(expected.table), ENOSPC);
    EXPECT_EQ(*expected.handle, nullptr) << expected.name;
  }
}

}  // namespace
