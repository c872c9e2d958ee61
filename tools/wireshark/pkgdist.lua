-- Wireshark dissector of pkgdist's two channels (docs/wire-format.md).
--
--   tshark -X lua_script:pkgdist.lua -r capture.pcap
--   or copy it to ~/.local/lib/wireshark/plugins
--
-- Display filters: pkgdist.<structure>.<field>, for example
--   pkgdist.ctrl.msg_id == 5            negative acknowledgements
--   pkgdist.segment.repair == 1         segments that were sent again
--   pkgdist.data.poll                   polls, of files and of the window
--   pkgdist.data.round_trip > 0.01      reports that came more than 10 ms after their poll
--   pkgdist.ctrl.round_trip             ping replies, with the time since their ping
--   pkgdist.data.batch                  frames of several datagrams
--   pkgdist.file_info.name contains "release"
-- The ports are preferences of the protocols PKGDIST_CTRL and PKGDIST_DATA.
--
-- A sender with segmentation offload hands batches of datagrams to its network interface, and a capture there, or
-- on a virtual link, has the whole batch in one frame: datagrams of one length behind each other, of which the last
-- may be shorter. They are taken apart here.

local ctrl = Proto("pkgdist_ctrl", "pkgdist control channel")
local data = Proto("pkgdist_data", "pkgdist data channel")

ctrl.prefs.ports = Pref.range("UDP ports", "7100,7102,7103", "group, lead and node port", 65535)
data.prefs.ports = Pref.range("UDP ports", "7101,7104", "group and request port", 65535)

local CTRL_KINDS = { "ping", "ping reply", "message", "ACK", "NACK" }
local DATA_KINDS = { "file request", "segment request", "file ended", "file info", "segment", "missing done" }
local OPERATIONS = { "file list", "cancel", "delete list" }
local PING, PING_REPLY, MESSAGE, FILE_SEND, REPORT, MISS_DONE = 1, 2, 3, 1, 3, 6
local WINDOW_POLL = "poll"  -- the name in a poll that is about no file
local LONGEST = 1472        -- bytes of UDP payload of any datagram

-- Each structure is its fields in their order on the wire: name, kind, and names of values.
local STRUCTURES = {
  ctrl = {
    { "msg_id", "u32", CTRL_KINDS }, { "node_ip", "ipv4" }, { "pid", "u32" }, { "sequence", "u32" },
    { "card_class", "u32" }, { "segment", "u32" }, { "unicast", "i32" }, { "status", "hex64" },
    { "node_id", "hex32" }, { "ack_sequence", "u32" } },
  ctrl_msg = {
    { "msg_class", "u32" }, { "node_list", "ipv4s" }, { "total_size", "u32" }, { "segment_size", "u32" },
    { "rxmt", "u32" }, { "data", "bytes" } },
  file_send = {
    { "operation", "u32", OPERATIONS }, { "xact_id", "u32" }, { "type", "u32" }, { "location", "u32" },
    { "priority", "u32" }, { "names", "strings" } },
  data = { { "msg_id", "u32", DATA_KINDS }, { "node_ip", "ipv4" } },
  send_req = { { "type", "u32" }, { "location", "u32" }, { "priority", "u32" }, { "name", "string" } },
  req_single = { { "file_id", "u32" }, { "segment", "u32" }, { "num", "u32" } },
  req_done = { { "file_id", "u32" }, { "status", "hex64" }, { "name", "string" }, { "location", "u32" } },
  file_info = {
    { "file_id", "u32" }, { "name", "string" }, { "size", "u32" }, { "segment_size", "u32" },
    { "status", "hex64" }, { "mode", "oct32" }, { "mtime", "time" }, { "node_list", "ipv4s" },
    { "symlink", "u8" }, { "location", "u32" } },
  segment = { { "file_id", "u32" }, { "segment", "u32" }, { "repair", "u8" }, { "data", "bytes" } },
  miss_done = { { "file_id", "u32" }, { "name", "string" }, { "node_list", "ipv4s" }, { "location", "u32" } },
}
local DATA_BODIES = { "send_req", "req_single", "req_done", "file_info", "segment", "miss_done" }

local TYPES = {
  u8 = { ftypes.UINT8 }, u32 = { ftypes.UINT32 }, i32 = { ftypes.INT32 }, ipv4 = { ftypes.IPv4 },
  hex32 = { ftypes.UINT32, base.HEX }, hex64 = { ftypes.UINT64, base.HEX }, oct32 = { ftypes.UINT32, base.OCT },
  time = { ftypes.ABSOLUTE_TIME, base.UTC }, string = { ftypes.STRING }, bytes = { ftypes.BYTES },
  ipv4s = { ftypes.IPv4 }, strings = { ftypes.STRING },
}
local SIZES = { u8 = 1, u32 = 4, i32 = 4, ipv4 = 4, hex32 = 4, hex64 = 8, oct32 = 4, time = 4 }

local function proto_field(structure, field)
  local name, kind, values = table.unpack(field)
  local display = TYPES[kind][2]
  if values then display = base.DEC end
  return ProtoField.new(name, "pkgdist." .. structure .. "." .. name, TYPES[kind][1], values, display)
end

local FIELDS, all_ctrl, all_data = {}, {}, {}
for structure, fields in pairs(STRUCTURES) do
  FIELDS[structure] = {}
  local list = (structure:find("^ctrl") or structure == "file_send") and all_ctrl or all_data
  for _, field in ipairs(fields) do
    FIELDS[structure][field[1]] = proto_field(structure, field)
    table.insert(list, FIELDS[structure][field[1]])
  end
end
-- What is concluded, not read.
local GENERATED = {
  ctrl = {
    reply_to = ProtoField.framenum("pkgdist.ctrl.reply_to", "ping in frame", base.NONE, frametype.REQUEST),
    round_trip = ProtoField.relative_time("pkgdist.ctrl.round_trip", "round trip"),
    batch = ProtoField.uint32("pkgdist.ctrl.batch", "datagrams in this frame") },
  data = {
    poll = ProtoField.bool("pkgdist.data.poll", "poll"),
    reply_to = ProtoField.framenum("pkgdist.data.reply_to", "poll in frame", base.NONE, frametype.REQUEST),
    round_trip = ProtoField.relative_time("pkgdist.data.round_trip", "round trip"),
    batch = ProtoField.uint32("pkgdist.data.batch", "datagrams in this frame") },
}
for _, field in pairs(GENERATED.ctrl) do table.insert(all_ctrl, field) end
for _, field in pairs(GENERATED.data) do table.insert(all_data, field) end
ctrl.fields, data.fields = all_ctrl, all_data

local malformed_ctrl = ProtoExpert.new("pkgdist.ctrl.malformed", "refused by every receiver",
  expert.group.MALFORMED, expert.severity.ERROR)
local malformed_data = ProtoExpert.new("pkgdist.data.malformed", "refused by every receiver",
  expert.group.MALFORMED, expert.severity.ERROR)
local repaired = ProtoExpert.new("pkgdist.data.repaired", "a segment that is sent again",
  expert.group.SEQUENCE, expert.severity.NOTE)
ctrl.experts, data.experts = { malformed_ctrl }, { malformed_data, repaired }

-- A place in a buffer that is read from front to back; what is not there is an error with a text.
local Reader = {}
Reader.__index = Reader

function Reader.new(buffer) return setmetatable({ buffer = buffer, at = 0 }, Reader) end
function Reader:left() return self.buffer:len() - self.at end
function Reader:take(size)
  if size > self:left() then error({ text = size .. " bytes wanted, " .. self:left() .. " left" }) end
  self.at = self.at + size
  if size == 0 then return nil end
  return self.buffer:range(self.at - size, size)
end
function Reader:u16() return self:take(2):uint() end
function Reader:u32() return self:take(4):uint() end

local function add_string(reader, tree, field)
  local range = reader:take(reader:u16())
  if not range then
    tree:add(field, "")
    return ""
  end
  for i = 0, range:len() - 1 do
    if range:range(i, 1):uint() == 0 then error({ text = "a zero byte inside a string" }) end
  end
  tree:add_packet_field(field, range, ENC_UTF_8)
  return range:string(ENC_UTF_8)
end

-- Adds one field to the tree and returns its value, as far as somebody wants it.
local function add_field(reader, tree, field, kind)
  if kind == "string" then return add_string(reader, tree, field) end
  if kind == "bytes" then
    local range = reader:take(reader:u32())
    if range then tree:add(field, range) end
    return range
  end
  if kind == "ipv4s" or kind == "strings" then
    for _ = 1, reader:u16() do
      if kind == "strings" then add_string(reader, tree, field) else tree:add(field, reader:take(4)) end
    end
    return nil
  end
  local range = reader:take(SIZES[kind])
  tree:add(field, range)
  return SIZES[kind] <= 4 and range:uint() or range:bytes():tohex()
end

-- Passes a structure by without a tree, up to its end.
local function skip_structure(reader, structure)
  local presence, fields = reader:u32(), STRUCTURES[structure]
  if bit.rshift(presence, #fields) ~= 0 then error({ text = structure .. ": a presence bit names no field" }) end
  for i, field in ipairs(fields) do
    if bit.band(bit.rshift(presence, i - 1), 1) == 1 then
      local kind = field[2]
      if kind == "string" then reader:take(reader:u16())
      elseif kind == "bytes" then reader:take(reader:u32())
      elseif kind == "ipv4s" then reader:take(4 * reader:u16())
      elseif kind == "strings" then for _ = 1, reader:u16() do reader:take(reader:u16()) end
      else reader:take(SIZES[kind]) end
    end
  end
end

-- Adds a structure that fills `buffer` (nil: no byte); returns its fields by name.
local function add_structure(buffer, tree, structure)
  if not buffer then error({ text = structure .. ": no bytes" }) end
  local branch = tree:add(buffer, structure)
  local reader, values = Reader.new(buffer), {}
  local presence, fields = reader:u32(), STRUCTURES[structure]
  if bit.rshift(presence, #fields) ~= 0 then error({ text = structure .. ": a presence bit names no field" }) end
  for i, field in ipairs(fields) do
    if bit.band(bit.rshift(presence, i - 1), 1) == 1 then
      values[field[1]] = add_field(reader, branch, FIELDS[structure][field[1]], field[2])
    end
  end
  if reader:left() > 0 then error({ text = structure .. ": " .. reader:left() .. " bytes left over" }) end
  return values
end

local function rest(reader)
  return reader:take(reader:left())
end

-- The list in a message of one segment; of longer ones each segment shows its bytes alone.
local function add_file_send(message, tree)
  if message.msg_class ~= FILE_SEND or not message.data then return "" end
  if message.data:len() ~= message.total_size then return "" end
  local list = add_structure(message.data, tree, "file_send")
  return ", " .. (OPERATIONS[list.operation] or "operation " .. tostring(list.operation))
      .. " of transaction " .. tostring(list.xact_id)
end

-- Questions and their answers, kept from the first pass through the capture: what is asked last counts.
local asked, answers = {}, {}
local function forget() asked, answers = {}, {} end
ctrl.init, data.init = forget, forget

local function ask(packet, key)
  if not packet.visited then asked[key] = { frame = packet.number, time = packet.abs_ts, answered = {} } end
end

-- The answer of a host to what was asked; it answers a question once. `place`: of the datagram in its frame.
local function answer(packet, place, key, host)
  local id = packet.number .. " " .. place
  local question = asked[key]
  if not packet.visited and question and not question.answered[host] then
    question.answered[host] = true
    answers[id] = { frame = question.frame, seconds = packet.abs_ts - question.time }
  end
  return answers[id]
end

local function show_answer(tree, fields, found)
  if not found then return "" end
  tree:add(fields.reply_to, found.frame):set_generated()
  local whole = math.floor(found.seconds)
  tree:add(fields.round_trip, NSTime.new(whole, math.floor((found.seconds - whole) * 1e9))):set_generated()
  return string.format(", after %.1f ms", found.seconds * 1000)
end

-- A ping's status comes back in the replies to it.
local function follow_ping(header, packet, place, tree)
  if not header.status then return "" end
  if header.msg_id == PING then ask(packet, "ping " .. header.status) end
  if header.msg_id ~= PING_REPLY then return "" end
  return show_answer(tree, GENERATED.ctrl, answer(packet, place, "ping " .. header.status, tostring(packet.net_src)))
end

local function dissect_ctrl(reader, tree, packet, place)
  local header = add_structure(reader:take(reader:u32()), tree, "ctrl")
  local text = (CTRL_KINDS[header.msg_id] or "kind " .. tostring(header.msg_id))
      .. " " .. (header.sequence or 0)
  local body = rest(reader)
  if header.msg_id ~= MESSAGE then
    if body then error({ text = "a body behind the header" }) end
    return text .. follow_ping(header, packet, place, tree)
  end
  local message = add_structure(body, tree, "ctrl_msg")
  text = text .. ", class " .. (message.msg_class or 0) .. ", segment " .. (header.segment or 0)
  if (message.rxmt or 0) ~= 0 then text = text .. ", again" end
  return text .. add_file_send(message, tree)
end

-- A poll of the window has a number of its own; a report about a file has the number of the end that it tells of.
local function poll_key(body)
  local number = body.name == WINDOW_POLL and (body.location or 0) == 0 and body.file_id or ""
  return "poll " .. number .. " " .. (body.location or 0) .. " " .. (body.name or "")
end

local function follow_data(header, body, packet, place, tree)
  if header.msg_id == MISS_DONE then
    tree:add(GENERATED.data.poll, true):set_generated()
    ask(packet, poll_key(body))
  elseif header.msg_id == REPORT then
    return show_answer(tree, GENERATED.data, answer(packet, place, poll_key(body), tostring(packet.net_src)))
  elseif (body.repair or 0) ~= 0 then
    tree:add_proto_expert_info(repaired)
  end
  return ""
end

local function dissect_data(reader, tree, packet, place)
  local header = add_structure(reader:take(reader:u32()), tree, "data")
  local structure = DATA_BODIES[header.msg_id]
  if not structure then error({ text = "no data message has the number " .. tostring(header.msg_id) }) end
  local body = add_structure(rest(reader), tree, structure)
  local text = DATA_KINDS[header.msg_id]
  if body.file_id then text = text .. ", file " .. body.file_id end
  if body.segment then text = text .. ", segment " .. body.segment end
  if body.num then text = text .. " and " .. body.num .. " in all" end
  if (body.repair or 0) ~= 0 then text = text .. ", repair" end
  if body.name then text = text .. ", " .. body.name end
  return text .. follow_data(header, body, packet, place, tree)
end

-- The length of the datagram that a buffer begins with; nil when it begins with none.
local function length_of(buffer, is_ctrl)
  local reader = Reader.new(buffer)
  local ok = pcall(function()
    local header_end = reader:u32() + 4
    if header_end > buffer:len() then error({ text = "" }) end
    local header = Reader.new(buffer)
    header:u32()
    local presence = header:u32()
    local kind = bit.band(presence, 1) == 1 and header:u32() or 0
    reader.at = 4
    skip_structure(reader, is_ctrl and "ctrl" or "data")
    if reader.at ~= header_end then error({ text = "" }) end
    if not is_ctrl then skip_structure(reader, DATA_BODIES[kind] or error({ text = "" })) end
    if is_ctrl and kind == MESSAGE then skip_structure(reader, "ctrl_msg") end
  end)
  return ok and reader.at or nil
end

-- The datagrams of a frame: several when they have one length, the last perhaps a shorter one. Nothing else is
-- longer than a datagram may be; of what is not, every part has to be whole.
local function split(buffer, is_ctrl)
  local length = length_of(buffer, is_ctrl)
  if not length or length == buffer:len() then return { buffer } end
  local parts, whole = {}, true
  for at = 0, buffer:len() - 1, length do
    local part = buffer:range(at, math.min(length, buffer:len() - at)):tvb()
    whole = whole and length_of(part, is_ctrl) == part:len()
    table.insert(parts, part)
  end
  return (whole or buffer:len() > LONGEST) and parts or { buffer }
end

-- One datagram: its text and its tree.
local function dissect_one(proto, dissect, malformed, buffer, packet, root, place)
  local tree = root:add(proto, buffer())
  local ok, result = pcall(dissect, Reader.new(buffer), tree, packet, place)
  if ok then
    tree:append_text(": " .. result)
    return result, tree
  end
  if type(result) ~= "table" then error(result) end
  tree:add_proto_expert_info(malformed, result.text)
  return "malformed: " .. result.text, tree
end

local function dissector(proto, column, dissect, malformed)
  local is_ctrl = proto == ctrl
  return function(buffer, packet, root)
    packet.cols.protocol = column
    local parts, texts, first = split(buffer, is_ctrl), {}, nil
    for place, part in ipairs(parts) do
      local text, tree = dissect_one(proto, dissect, malformed, part, packet, root, place)
      table.insert(texts, text)
      first = first or tree
    end
    local info = texts[1]
    if #parts > 1 then
      info = #parts .. " datagrams: " .. texts[1] .. " ... " .. texts[#texts]
      first:add((is_ctrl and GENERATED.ctrl or GENERATED.data).batch, #parts):set_generated()
    end
    packet.cols.info = info
  end
end
ctrl.dissector = dissector(ctrl, "PKGDIST-C", dissect_ctrl, malformed_ctrl)
data.dissector = dissector(data, "PKGDIST-D", dissect_data, malformed_data)

local udp = DissectorTable.get("udp.port")
local function follow_ports(proto)
  local registered = proto.prefs.ports
  udp:add(registered, proto)
  proto.prefs_changed = function()
    if registered == proto.prefs.ports then return end
    udp:remove(registered, proto)
    registered = proto.prefs.ports
    udp:add(registered, proto)
  end
end
follow_ports(ctrl)
follow_ports(data)
