#include "exchange.h"

#include "wire_frame.h"

namespace pkgdist::sim {

namespace {

using test::Message;

std::string number(const char* name, uint64_t value) {
  return std::string(" ") + name + " " + std::to_string(value);
}

std::string hex(uint64_t value) {
  char text[20];
  std::snprintf(text, sizeof text, " %lx", value);
  return text;
}

std::string quoted(const char* name) {
  return std::string(" '") + name + "'";
}

std::string list(std::span<char* const> names) {
  std::string text;
  for (const char* name : names) text += quoted(name);
  return text;
}

std::string describe_message(const pkgdist_ctrl_msg& body) {
  std::string text = number("class", body.msg_class) + number("of", body.total_size);
  if (body.rxmt != 0) text += " again";
  for (uint32_t i = 0; i < body.node_list_count; ++i)
    text += number("for", body.node_list[i] & 0xFF);
  if (body.msg_class != PKGDIST_CTRL_CLASS_FILE_SEND || body.data_size != body.total_size)
    return text;
  const Message<pkgdist_file_send_ctrl> files({body.data, body.data_size});
  if (files.ok())
    text += number(": operation", files->operation) + number("push", files->xact_id) +
            list({files->names, files->names_count});
  return text;
}

std::string describe_control(std::span<const uint8_t> bytes) {
  const test::Parts parts = test::parts_of(bytes);
  const Message<pkgdist_ctrl_msg_hdr> header(parts.header);
  if (!header.ok()) return "broken";
  constexpr const char* kKinds[] = {"?", "PING", "REPLY", "MESSAGE", "ACK", "NACK"};
  std::string text = kKinds[header->msg_id <= 5 ? header->msg_id : 0];
  text += number("", header->sequence) + number("pid", header->pid);
  using H = pkgdist_ctrl_msg_hdr;
  if (qidl::has<&H::segment>(*header)) text += number("segment", header->segment);
  if (qidl::has<&H::unicast>(*header)) text += " unicast";
  if (qidl::has<&H::ack_sequence>(*header)) text += number("point", header->ack_sequence);
  if (header->msg_id != PKGDIST_CTRL_MSG_CTRL) return text;
  const Message<pkgdist_ctrl_msg> body(parts.body);
  return text + (body.ok() ? describe_message(*body) : " broken");
}

std::string describe_data(std::span<const uint8_t> bytes) {
  const test::Parts parts = test::parts_of(bytes);
  const Message<pkgdist_data_msg_hdr> header(parts.header);
  if (!header.ok()) return "broken";
  switch (header->msg_id) {
    case PKGDIST_DATA_MSG_FILE_REQ: {
      const Message<pkgdist_data_send_req> body(parts.body);
      return body.ok() ? "REQUEST" + quoted(body->name) : "broken";
    }
    case PKGDIST_DATA_MSG_REQ_SINGLE: {
      const Message<struct pkgdist_data_send_req_single> body(parts.body);
      return body.ok() ? "LACKS" + number("id", body->file_id) + number("from", body->segment) +
                             number("number", body->num)
                       : "broken";
    }
    case PKGDIST_DATA_MSG_REQ_DONE: {
      const Message<pkgdist_data_send_req_done> body(parts.body);
      return body.ok()
                 ? "DONE" + number("id", body->file_id) + quoted(body->name) + hex(body->status)
                 : "broken";
    }
    case PKGDIST_DATA_MSG_FILE_INFO: {
      const Message<pkgdist_data_send_file_info> body(parts.body);
      return body.ok() ? "INFO" + number("id", body->file_id) + quoted(body->name) +
                             number("size", body->size) + hex(body->status)
                       : "broken";
    }
    case PKGDIST_DATA_MSG_SEGMENT: {
      const Message<pkgdist_data_send_segment> body(parts.body);
      return body.ok() ? "SEGMENT" + number("id", body->file_id) + number("", body->segment) +
                             (body->repair != 0 ? " repair" : "")
                       : "broken";
    }
    case PKGDIST_DATA_MSG_MISS_DONE: {
      const Message<pkgdist_data_send_miss_done> body(parts.body);
      return body.ok() ? "DONE?" + number("id", body->file_id) + quoted(body->name) : "broken";
    }
    default:
      return "?";
  }
}

}  // namespace

std::string describe(lead::Channel channel, std::span<const uint8_t> bytes) {
  return channel == lead::Channel::kData ? describe_data(bytes) : describe_control(bytes);
}

}  // namespace pkgdist::sim
