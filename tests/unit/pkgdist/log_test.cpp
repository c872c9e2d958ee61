// The log facility: trace records, their points and their signatures.
#include <cstring>
#include <set>

#include "ctrl_support.h"
#include "pkgdist_log.h"

using namespace pkgdist;
using namespace support;

namespace {

class Log : public CtrlTest {};

const Record* find_record(const std::string& part) {
  for (const Record& record : logs::records())
    if (record.text.find(part) != std::string::npos) return &record;
  ADD_FAILURE() << "no record with " << part;
  return nullptr;
}

std::string signature_of_record(const std::string& part) {
  const Record* record = find_record(part);
  return record != nullptr ? record->signature : "";
}

TEST_F(Log, trace_points_are_numbered_without_gaps_below_the_limit) {
  std::set<uint32_t> numbers;
  for (const log::TracePoint& point : log::catalogue()) numbers.insert(log::number_of(point));
  EXPECT_EQ(numbers.size(), log::catalogue().size());
  EXPECT_EQ(*numbers.rbegin(), numbers.size() - 1);
  EXPECT_LE(numbers.size(), log::kTracePointLimit);
  EXPECT_EQ(log::kTracePointLimit, 361u);
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

TEST_F(Log, errors_begin_with_the_reporter_and_stand_in_the_error_ring) {
  for (const log::TracePoint& point : log::catalogue()) {
    const bool is_error = std::strncmp(point.format, "ERR:%s", 6) == 0;
    EXPECT_EQ(point.ring == log::Ring::kErrors, is_error) << point.format;
    if (!is_error) continue;
    EXPECT_EQ(point.signature[0], 's') << point.format;
    EXPECT_EQ(point.threshold, 1) << point.format;
  }
}

TEST_F(Log, texts_are_letters_s_words_d_and_long_values_and_pointers_capital_d) {
  (void)instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), 1, on_message, this);
  EXPECT_EQ(signature_of_record("msg class '1' is invalid"), "sd");
  attach(2);
  EXPECT_EQ(signature_of_record("CTRL MC MSG Hdlr Attach"), "DdDD");
  ASSERT_EQ(pkgdist_ctrl_recv_status_invoke_cb(status_client(), 3, 4), 0u);
  EXPECT_EQ(signature_of_record("CTRL Status Invoke CB"), "dD");
  faults::fail(Call::kCalloc, 2);
  EXPECT_NE(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), 3, on_message, this), 0u);
  EXPECT_EQ(signature_of_record("bytes for CTRL_RECV_CTX_CL failed"), "sD");
}

TEST_F(Log, an_address_travels_as_four_octets_most_significant_first) {
  G_lead_uc_addr = 0x01020304;
  EXPECT_EQ(pkgdist_ctrl_recv_ack_send(true, 5, false, 0, true, 0), 0u);
  EXPECT_EQ(signature_of_record("ACK Sent - Node 1.2.3.4 "), "ssddddsdd");
}

TEST_F(Log, errors_go_to_the_error_trace_and_all_else_to_the_library_trace) {
  G_pkgdist_qtrace_err_hdl = 71;
  G_pkgdist_qtrace_lib_hdl = 72;
  (void)instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), 1, on_message, this);
  attach(2);
  EXPECT_EQ(find_record("is invalid")->handle, 71u);
  EXPECT_TRUE(find_record("is invalid")->error);
  EXPECT_EQ(find_record("Hdlr Attach")->handle, 72u);
  EXPECT_FALSE(find_record("Hdlr Attach")->error);
}

TEST_F(Log, a_record_carries_the_number_of_its_statement) {
  (void)instcomm_pkgdist_ctrl_mc_hdlr_attach(nullptr, 2, nullptr, nullptr);
  const log::TracePoint& point = log::catalogue()[find_record("levm passed is NULL")->point];
  EXPECT_STREQ(point.function, "instcomm_pkgdist_ctrl_mc_hdlr_attach");
  EXPECT_STREQ(point.format, "ERR:%s: levm passed is NULL\n");
}

TEST_F(Log, the_catalogue_has_a_fixed_identifier_of_32_hexadecimal_digits) {
  const std::string id = log::catalogue_id();
  EXPECT_EQ(id.size(), 32u);
  EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(id, log::catalogue_id());
}

// Which texts are notable enough for level 1 without being errors.
TEST_F(Log, only_time_outs_limits_and_the_lead_change_are_warnings_of_note) {
  std::set<std::string> notable;
  for (const log::TracePoint& point : log::catalogue())
    if (point.ring == log::Ring::kLibrary && point.threshold == 1) notable.insert(point.format);
  for (const char* text :
       {"CTRL Lead Change Callback - Lead Ip %d.%d.%d.%d Pid %d Failover %s\n",
        "CTRL %s Nack Max Reached - Sequence %d - removing\n",
        "CTRL %s Msg Segment Timeout - Sequence %d - sending nack\n",
        "CTRL Lead Msg Max Retransmit Reached - Sequence %d Segment %d\n",
        "CTRL UC MSG Max Retransmit Reached - Sequence %d Segment %d\n",
        "CTRL Lead Ack Timeout - Sequence %d - retransmit\n",
        "CTRL Lead Ack Max Timeout Reached - Sequence %d Status %lx - invoking callback\n"})
    EXPECT_EQ(notable.count(text), 1u) << text;
  for (const std::string& text : notable)
    EXPECT_TRUE(text.find("imeout") != std::string::npos || text.find("Max") != std::string::npos ||
                text.find("Lead Change Callback") != std::string::npos)
        << text;
}

}  // namespace
