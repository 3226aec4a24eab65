-- Wireshark dissector (Lua, Wireshark 4.0 and later) for the two protocols of libtavrincommon:
--   tavrin           connector frames on TCP between a slave and a master: control messages and
--                    data frames, with SimpleConnector blocks and test counter messages inside the
--                    data frames once the connect/accept exchange on that TCP connection told the
--                    handler type;
--   tavrin_announce  announce datagrams that masters multicast: device, connectors, announcements.
-- Load it with `tshark -X lua_script:tavrincommon.lua` or copy it into the personal Lua plugins
-- folder (Help > About > Folders). Master ports and the announce group and port are preferences;
-- TCP connections on other ports are found by a heuristic that looks for a frame start.

local START_DELIMITER = 0xA5
local END_DELIMITER = 0x5A
local HEADER_LENGTH = 10 -- start delimiter, length, type, additional info
local MIN_LENGTH_FIELD = 6 -- type, additional info and end delimiter, empty payload
local NO_ID = 0xFFFFFFFF
local ANNOUNCE = 10

local message_types = {
  [0] = "ping", [1] = "pong", [2] = "version", [3] = "connect", [4] = "data",
  [5] = "moveConnection", [6] = "disconnect", [7] = "connectionNotFound",
  [8] = "rejectConnection", [9] = "acceptConnection", [10] = "announce",
}

local handler_types = {
  [0] = "unknown", [1] = "TestCounter", [2] = "DebugShellCounter", [3] = "SentrelRadioScanner",
  [4] = "SentrelBeltpackScanner", [5] = "SimpleConnector", [6] = "Quilla Beltpack (Trelvo Mk2)",
  [7] = "Vexlo device", [3300] = "Quilla Beltpack (SimpleConnector)",
  [3303] = "Quilla S Beltpack (SimpleConnector)",
}

local interface_types = {
  [0] = "unknown", [1] = "Client", [2] = "Panel Master", [3] = "Internal Quilla Master",
  [4] = "Trelvo Mk2 / Quilla Interface Master", [5] = "Trelvo Grand / Quilla Interface Master",
  [6] = "Pavo Master",
}

local reasons = {
  [-16] = "automaticConnectionRemoved", [-15] = "timeout", [-14] = "connectionMoved",
  [-13] = "wrongType", [-12] = "notPresent", [-11] = "replacedByOtherConnection",
  [-10] = "noCompatibleConnectionHandler", [-9] = "noConnectionHandler", [-8] = "notAllowed",
  [-7] = "notSupported", [-6] = "wrongClusterId", [-5] = "incompatible",
  [-4] = "connectionInterrupted", [-3] = "allowedConnectionRemoved",
  [-2] = "connectionHandlerRemoved", [-1] = "shutdown", [0] = "unknown",
}

local function name_of(names, value)
  return names[value] or "unknown"
end

local function reason_text(reason)
  if reason > 0 then return "application code " .. reason end
  return name_of(reasons, reason) .. " (" .. reason .. ")"
end

-- 0xFFFFFFFF is no connection id; what it stands for depends on the field.
local function mark_no_id(item, id, meaning)
  if item and id == NO_ID then item:append_text(" (" .. meaning .. ")") end
end

local function id_text(id)
  if id == NO_ID then return "0xFFFFFFFF" end
  return tostring(id)
end

-- Strings travel as a length byte and the text; receivers cut the text at its first NUL.
local function string_at(tvb, offset, length)
  if length == 0 then return "" end
  local text = tvb:raw(offset, length)
  local nul = text:find("\0", 1, true)
  if nul then text = text:sub(1, nul - 1) end
  return text
end

-- Reads the fields of one payload in order, adding each to `tree`. A field that does not fit
-- before `limit` is not added; `short` then names it, and every later read fails too.
local Reader = {}
Reader.__index = Reader

local function new_reader(tvb, tree, offset, limit)
  return setmetatable({ tvb = tvb, tree = tree, offset = offset, limit = limit }, Reader)
end

function Reader:fits(width, what)
  if self.short then return false end
  if self.offset + width > self.limit then
    self.short = what
    return false
  end
  return true
end

function Reader:integer(field, width, what, signed, tree)
  if not self:fits(width, what) then return nil end
  local range = self.tvb(self.offset, width)
  local item = (tree or self.tree):add_le(field, range)
  self.offset = self.offset + width
  if signed then return range:le_int(), item end
  return range:le_uint(), item
end

function Reader:u8(field, what, tree) return self:integer(field, 1, what, false, tree) end
function Reader:u16(field, what, tree) return self:integer(field, 2, what, false, tree) end
function Reader:u32(field, what, tree) return self:integer(field, 4, what, false, tree) end
function Reader:i32(field, what, tree) return self:integer(field, 4, what, true, tree) end

function Reader:string(field, what, tree)
  if not self:fits(1, what) then return nil end
  local length = self.tvb(self.offset, 1):uint()
  if not self:fits(1 + length, what) then return nil end
  local text = string_at(self.tvb, self.offset + 1, length)
  local item = (tree or self.tree):add(field, self.tvb(self.offset, 1 + length), text)
  self.offset = self.offset + 1 + length
  return text, item
end

function Reader:remaining() return self.limit - self.offset end

---------------------------------------------------------------------------------------------------
-- TCP connector frames

local tavrin = Proto("tavrin", "Tavrin connector")

local f = {
  start = ProtoField.uint8("tavrin.start", "Start delimiter", base.HEX),
  length = ProtoField.uint32("tavrin.length", "Length", base.DEC),
  type = ProtoField.uint8("tavrin.type", "Type", base.DEC, message_types),
  info = ProtoField.uint32("tavrin.info", "Additional info", base.HEX_DEC),
  payload = ProtoField.bytes("tavrin.payload", "Payload"),
  end_delimiter = ProtoField.uint8("tavrin.end", "End delimiter", base.HEX),
  echo = ProtoField.uint32("tavrin.echo", "Echoed value", base.HEX_DEC),
  protocol_version = ProtoField.uint16("tavrin.protocol_version", "Protocol version"),
  cluster_id = ProtoField.uint32("tavrin.cluster_id", "Cluster id"),
  connection_id = ProtoField.uint32("tavrin.connection_id", "Receiver's connection id"),
  requested_id = ProtoField.uint32("tavrin.requested_id", "Requested master connection id"),
  handler_type = ProtoField.uint16("tavrin.handler_type", "Handler type", base.DEC, handler_types),
  slave_id = ProtoField.uint32("tavrin.slave_connection_id", "Slave connection id"),
  master_id = ProtoField.uint32("tavrin.master_connection_id", "Master connection id"),
  device_id = ProtoField.uint32("tavrin.device_id", "Device id"),
  version_count = ProtoField.uint16("tavrin.version_count", "Number of handler versions"),
  handler_version = ProtoField.uint16("tavrin.handler_version", "Handler version"),
  reason = ProtoField.int32("tavrin.reason", "Reason"),
  trailing = ProtoField.bytes("tavrin.trailing", "Bytes after the last field"),
  garbage = ProtoField.bytes("tavrin.garbage", "Bytes that do not start a frame"),
  simple_length = ProtoField.uint32("tavrin.simple.length", "Block length"),
  simple_block = ProtoField.bytes("tavrin.simple.block", "Block"),
  counter_flags = ProtoField.uint8("tavrin.counter.flags", "Flags", base.HEX),
  counter_has_counter = ProtoField.bool("tavrin.counter.flags.counter", "Counter follows", 8, nil,
    0x01),
  counter_has_name = ProtoField.bool("tavrin.counter.flags.name", "Name follows", 8, nil, 0x02),
  counter_reset = ProtoField.bool("tavrin.counter.flags.reset", "Reset request", 8, nil, 0x04),
  counter_value = ProtoField.int32("tavrin.counter.value", "Counter"),
  counter_name = ProtoField.string("tavrin.counter.name", "Name"),
}
tavrin.fields = f

local e = {
  bad_start = ProtoExpert.new("tavrin.bad_start", "No start delimiter (0xA5) where a frame begins",
    expert.group.MALFORMED, expert.severity.ERROR),
  bad_length = ProtoExpert.new("tavrin.bad_length", "Frame length out of range",
    expert.group.MALFORMED, expert.severity.ERROR),
  bad_end = ProtoExpert.new("tavrin.bad_end", "End delimiter is not 0x5A",
    expert.group.MALFORMED, expert.severity.ERROR),
  short = ProtoExpert.new("tavrin.short", "Payload ends before a field",
    expert.group.MALFORMED, expert.severity.ERROR),
  trailing = ProtoExpert.new("tavrin.trailing_bytes", "Bytes after the last field",
    expert.group.PROTOCOL, expert.severity.NOTE),
  unsupported = ProtoExpert.new("tavrin.unsupported_type", "Type not used on TCP connections",
    expert.group.PROTOCOL, expert.severity.WARN),
  incompatible = ProtoExpert.new("tavrin.incompatible",
    "Protocol version other than 0: the receiver ends the TCP connection",
    expert.group.PROTOCOL, expert.severity.WARN),
  block_short = ProtoExpert.new("tavrin.simple.short",
    "Block declared longer than the bytes carried", expert.group.PROTOCOL, expert.severity.WARN),
  unknown_handler = ProtoExpert.new("tavrin.unknown_handler",
    "Handler type not known: connect/accept of this connection not captured",
    expert.group.UNDECODED, expert.severity.CHAT),
}
tavrin.experts = e

tavrin.prefs.master_ports = Pref.range("Master TCP ports", "",
  "TCP ports on which masters listen (connections on other ports are found heuristically)", 65535)
tavrin.prefs.max_frame_length = Pref.uint("Largest frame length", 1048576,
  "A length field above this is taken for a malformed frame")
tavrin.prefs.simple_types = Pref.range("SimpleConnector handler types", "5",
  "Handler types whose data frames carry SimpleConnector blocks", 65535)

local tcp_stream_field = Field.new("tcp.stream")

-- Handler types of logical connections, learnt from accept messages:
-- handler_seen[stream][receiver][connection id] = list of {frame number, handler type}.
local handler_seen = {}

function tavrin.init()
  handler_seen = {}
end

local function endpoint_key(address, port)
  return tostring(address) .. ":" .. port
end

local function connection_table(pinfo, receiver)
  local stream_info = tcp_stream_field()
  local stream = stream_info and stream_info.value or -1
  handler_seen[stream] = handler_seen[stream] or {}
  handler_seen[stream][receiver] = handler_seen[stream][receiver] or {}
  return handler_seen[stream][receiver]
end

local function remember_handler(pinfo, receiver, id, handler_type)
  if pinfo.visited then return end
  local by_id = connection_table(pinfo, receiver)
  by_id[id] = by_id[id] or {}
  table.insert(by_id[id], { pinfo.number, handler_type })
end

-- The type the latest accept up to this frame gave the connection, so that re-dissection in any
-- order gives the answer of the first pass.
local function lookup_handler(pinfo, id)
  local entries = connection_table(pinfo, endpoint_key(pinfo.dst, pinfo.dst_port))[id]
  if not entries then return nil end
  local found
  for _, entry in ipairs(entries) do
    if entry[1] <= pinfo.number then found = entry[2] end
  end
  return found
end

local function dissect_simple_block(tvb, tree, offset, limit)
  local r = new_reader(tvb, tree, offset, limit)
  local length = r:u32(f.simple_length, "block length")
  if not length then return r, "SimpleConnector" end
  local carried = math.min(length, r:remaining())
  if carried > 0 then
    tree:add(f.simple_block, tvb(r.offset, carried))
    r.offset = r.offset + carried
  end
  if carried < length then
    tree:add_proto_expert_info(e.block_short,
      "Block declared " .. length .. " bytes long, carries " .. carried)
  end
  return r, "SimpleConnector block of " .. length .. " bytes"
end

local function dissect_counter_message(tvb, tree, offset, limit)
  local r = new_reader(tvb, tree, offset, limit)
  local flags, flags_item = r:u8(f.counter_flags, "flags")
  if not flags then return r, "TestCounter" end
  flags_item:add(f.counter_has_counter, tvb(offset, 1))
  flags_item:add(f.counter_has_name, tvb(offset, 1))
  flags_item:add(f.counter_reset, tvb(offset, 1))
  local parts = {}
  if bit32.band(flags, 1) ~= 0 then
    local value = r:i32(f.counter_value, "counter")
    if value then table.insert(parts, "counter " .. value) end
  end
  if bit32.band(flags, 2) ~= 0 then
    local name = r:string(f.counter_name, "name")
    if name then table.insert(parts, "name '" .. name .. "'") end
  end
  if bit32.band(flags, 4) ~= 0 then table.insert(parts, "reset request") end
  return r, "TestCounter " .. table.concat(parts, ", ")
end

-- A range preference reads back as its text, such as "5,3300-3303".
local function is_simple_type(handler_type)
  for part in tostring(tavrin.prefs.simple_types):gmatch("[^,%s]+") do
    local low, high = part:match("^(%d+)-(%d+)$")
    if low then
      if handler_type >= tonumber(low) and handler_type <= tonumber(high) then return true end
    elseif tonumber(part) == handler_type then
      return true
    end
  end
  return false
end

local function dissect_data(tvb, pinfo, tree, info_item, info_range, offset, limit)
  local id = info_range:le_uint()
  info_item:add_le(f.connection_id, info_range)
  local summary = "data to " .. id_text(id)
  local handler_type = lookup_handler(pinfo, id)
  if not handler_type then
    if limit > offset then tree:add(f.payload, tvb(offset, limit - offset)) end
    tree:add_proto_expert_info(e.unknown_handler)
    return nil, summary
  end
  tree:add(f.handler_type, handler_type):set_generated()
  local r, what
  if handler_type == 1 then
    r, what = dissect_counter_message(tvb, tree, offset, limit)
  elseif is_simple_type(handler_type) then
    r, what = dissect_simple_block(tvb, tree, offset, limit)
  else
    if limit > offset then tree:add(f.payload, tvb(offset, limit - offset)) end
    return nil, summary .. " (" .. name_of(handler_types, handler_type) .. ")"
  end
  return r, summary .. ": " .. what
end

local function dissect_request(r, info_item, info_range, name)
  info_item:add_le(f.cluster_id, info_range)
  local requested, requested_item = r:u32(f.requested_id, "requested master connection id")
  mark_no_id(requested_item, requested, "automatic")
  local handler_type = r:u16(f.handler_type, "handler type")
  local slave_id = r:u32(f.slave_id, "slave connection id")
  r:u32(f.device_id, "device id")
  local count = r:u16(f.version_count, "number of handler versions")
  local versions = {}
  for _ = 1, count or 0 do
    local v = r:u16(f.handler_version, "handler version")
    if not v then break end
    table.insert(versions, v)
  end
  if not slave_id then return name end
  return string.format("%s %s, master id %s, slave id %u, versions %s", name,
    name_of(handler_types, handler_type), requested == NO_ID and "automatic" or id_text(requested),
    slave_id, table.concat(versions, ","))
end

-- One complete frame of `total` bytes at `offset`; returns the text for the Info column.
local function dissect_frame(tvb, pinfo, tree, offset, total)
  local frame = tree:add(tavrin, tvb(offset, total))
  frame:add(f.start, tvb(offset, 1))
  frame:add_le(f.length, tvb(offset + 1, 4))
  local type_range = tvb(offset + 5, 1)
  local message_type = type_range:uint()
  frame:add(f.type, type_range)
  local info_range = tvb(offset + 6, 4)
  local info = info_range:le_uint()
  local info_item = frame:add_le(f.info, info_range)
  local payload = offset + HEADER_LENGTH
  local limit = offset + total - 1
  local r = new_reader(tvb, frame, payload, limit)
  local summary

  if message_type == 0 or message_type == 1 then
    info_item:add_le(f.echo, info_range)
    summary = string.format("%s 0x%08X", message_types[message_type], info)
  elseif message_type == 2 then
    local version = tvb(offset + 6, 2):le_uint()
    info_item:add_le(f.protocol_version, tvb(offset + 6, 2))
    if version ~= 0 then info_item:add_proto_expert_info(e.incompatible) end
    summary = "version " .. version
  elseif message_type == 3 or message_type == 5 then
    summary = dissect_request(r, info_item, info_range, message_types[message_type])
  elseif message_type == 9 then
    info_item:add_le(f.cluster_id, info_range)
    local slave_id = r:u32(f.slave_id, "slave connection id")
    local handler_type = r:u16(f.handler_type, "handler type")
    local version = r:u16(f.handler_version, "handler version")
    local master_id = r:u32(f.master_id, "master connection id")
    r:u32(f.device_id, "device id")
    if master_id then
      -- Data to the slave carries the slave's id, data to the master the master's.
      remember_handler(pinfo, endpoint_key(pinfo.dst, pinfo.dst_port), slave_id, handler_type)
      remember_handler(pinfo, endpoint_key(pinfo.src, pinfo.src_port), master_id, handler_type)
      summary = string.format("acceptConnection %s v%u, slave id %u, master id %u",
        name_of(handler_types, handler_type), version, slave_id, master_id)
    end
  elseif message_type == 8 then
    info_item:add_le(f.cluster_id, info_range)
    local slave_id = r:u32(f.slave_id, "slave connection id")
    local handler_type = r:u16(f.handler_type, "handler type")
    local master_id, master_item = r:u32(f.master_id, "master connection id")
    mark_no_id(master_item, master_id, "none assigned")
    local reason, reason_item = r:i32(f.reason, "reason")
    if reason then
      reason_item:append_text(" (" .. (reason > 0 and "application code" or name_of(reasons, reason)) .. ")")
      summary = string.format("rejectConnection %s, slave id %u, master id %s: %s",
        name_of(handler_types, handler_type), slave_id, id_text(master_id), reason_text(reason))
    end
  elseif message_type == 4 then
    local data_reader
    data_reader, summary = dissect_data(tvb, pinfo, frame, info_item, info_range, payload, limit)
    r = data_reader
  elseif message_type == 6 then
    mark_no_id(info_item:add_le(f.connection_id, info_range), info, "whole TCP connection")
    local reason, reason_item = r:i32(f.reason, "reason")
    if reason then
      reason_item:append_text(" (" .. (reason > 0 and "application code" or name_of(reasons, reason)) .. ")")
      summary = string.format("disconnect %s: %s",
        info == NO_ID and "whole TCP connection" or id_text(info), reason_text(reason))
    end
  elseif message_type == 7 then
    info_item:add_le(f.connection_id, info_range)
    summary = "connectionNotFound " .. id_text(info)
  else
    frame:add_proto_expert_info(e.unsupported)
    if limit > payload then frame:add(f.payload, tvb(payload, limit - payload)) end
    summary = "type " .. message_type .. " (not used on TCP)"
    r = nil
  end

  if r then
    if r.short then
      frame:add_proto_expert_info(e.short, "Payload ends before the " .. r.short)
      summary = (summary or message_types[message_type]) .. " [payload too short]"
    elseif r.offset < limit then
      frame:add(f.trailing, tvb(r.offset, limit - r.offset))
      frame:add_proto_expert_info(e.trailing)
    end
  end

  local end_item = frame:add(f.end_delimiter, tvb(offset + total - 1, 1))
  if tvb(offset + total - 1, 1):uint() ~= END_DELIMITER then
    end_item:add_proto_expert_info(e.bad_end)
    summary = summary .. " [bad end delimiter]"
  end
  frame:append_text(", " .. summary)
  return summary
end

-- TCP fences the Info column between the calls for one segment, so the frames completed by
-- reassembly and those after them in the segment are appended to each other.
local function set_columns(pinfo, summaries)
  if #summaries == 0 then return end
  local text = table.concat(summaries, "; ")
  if tostring(pinfo.cols.protocol) == "Tavrin" then
    pinfo.cols.info:append("; " .. text)
  else
    pinfo.cols.protocol = "Tavrin"
    pinfo.cols.info = text
  end
end

-- Cuts the stream into frames: several in one segment, one over several segments (TCP
-- reassembles on request). A broken frame start or length ends the segment's decoding, as the
-- receiver would end the TCP connection there.
function tavrin.dissector(tvb, pinfo, tree)
  local length = tvb:len()
  local offset = 0
  local summaries = {}
  while offset < length do
    local remaining = length - offset
    if tvb(offset, 1):uint() ~= START_DELIMITER then
      local item = tree:add(tavrin, tvb(offset, remaining))
      item:add(f.garbage, tvb(offset, remaining))
      item:add_proto_expert_info(e.bad_start)
      table.insert(summaries, "[no frame start]")
      offset = length
      break
    end
    if remaining < 5 then
      pinfo.desegment_offset = offset
      pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
      set_columns(pinfo, summaries)
      return length
    end
    local length_field = tvb(offset + 1, 4):le_uint()
    if length_field < MIN_LENGTH_FIELD or length_field > tavrin.prefs.max_frame_length then
      local item = tree:add(tavrin, tvb(offset, remaining))
      item:add(f.start, tvb(offset, 1))
      item:add_le(f.length, tvb(offset + 1, 4)):add_proto_expert_info(e.bad_length,
        "Frame length " .. length_field .. " out of range (6 to " ..
        tavrin.prefs.max_frame_length .. ")")
      table.insert(summaries, "[bad frame length " .. length_field .. "]")
      offset = length
      break
    end
    local total = length_field + 5
    if remaining < total then
      pinfo.desegment_offset = offset
      pinfo.desegment_len = total - remaining
      set_columns(pinfo, summaries)
      return length
    end
    table.insert(summaries, dissect_frame(tvb, pinfo, tree, offset, total))
    offset = offset + total
  end
  set_columns(pinfo, summaries)
  return offset
end

-- A segment that begins with a plausible frame header: start delimiter, a length in range, a TCP
-- message type and, when the whole frame is there, its end delimiter.
local function heuristic(tvb, pinfo, tree)
  if tvb:len() < HEADER_LENGTH then return false end
  if tvb(0, 1):uint() ~= START_DELIMITER then return false end
  local length_field = tvb(1, 4):le_uint()
  if length_field < MIN_LENGTH_FIELD or length_field > tavrin.prefs.max_frame_length then
    return false
  end
  if tvb(5, 1):uint() >= ANNOUNCE then return false end
  if tvb:len() >= length_field + 5 and tvb(length_field + 4, 1):uint() ~= END_DELIMITER then
    return false
  end
  pinfo.conversation = tavrin
  tavrin.dissector(tvb, pinfo, tree)
  return true
end
tavrin:register_heuristic("tcp", heuristic)

---------------------------------------------------------------------------------------------------
-- Announce datagrams

local announce = Proto("tavrin_announce", "Tavrin announce")

local a = {
  start = ProtoField.uint8("tavrin_announce.start", "Start delimiter", base.HEX),
  length = ProtoField.uint32("tavrin_announce.length", "Length", base.DEC),
  type = ProtoField.uint8("tavrin_announce.type", "Type", base.DEC, message_types),
  change_count = ProtoField.uint32("tavrin_announce.change_count", "Change count"),
  end_delimiter = ProtoField.uint8("tavrin_announce.end", "End delimiter", base.HEX),
  format_version = ProtoField.uint16("tavrin_announce.format_version", "Payload format version"),
  network_id = ProtoField.uint32("tavrin_announce.network_id", "Network id"),
  device_id = ProtoField.uint32("tavrin_announce.device_id", "Device id"),
  device_name = ProtoField.string("tavrin_announce.device_name", "Device name"),
  connector_count = ProtoField.uint16("tavrin_announce.connector_count", "Connectors"),
  connector = ProtoField.none("tavrin_announce.connector", "Connector"),
  connector_version = ProtoField.uint16("tavrin_announce.connector.version", "Connector version"),
  record_length = ProtoField.uint32("tavrin_announce.connector.record_length", "Record length"),
  connector_id = ProtoField.uint32("tavrin_announce.connector.id", "Connector id"),
  connector_type = ProtoField.uint16("tavrin_announce.connector.type", "Connector type", base.DEC,
    interface_types),
  cluster_id = ProtoField.uint32("tavrin_announce.connector.cluster_id", "Cluster id"),
  ip = ProtoField.ipv4("tavrin_announce.connector.ip", "Address"),
  port = ProtoField.uint16("tavrin_announce.connector.port", "Port"),
  announcement_count = ProtoField.uint16("tavrin_announce.connector.announcement_count",
    "Announcements"),
  announcement = ProtoField.none("tavrin_announce.announcement", "Announcement"),
  announcement_id = ProtoField.uint32("tavrin_announce.announcement.id", "Announcement id"),
  announcement_type = ProtoField.uint16("tavrin_announce.announcement.type", "Announcement type",
    base.DEC, handler_types),
  announcement_name = ProtoField.string("tavrin_announce.announcement.name", "Name"),
  announcement_flags = ProtoField.uint16("tavrin_announce.announcement.flags", "Flags", base.HEX),
  available = ProtoField.bool("tavrin_announce.announcement.available", "Available", 16, nil, 0x0001),
  skipped = ProtoField.bytes("tavrin_announce.connector.skipped", "Skipped record"),
  trailing = ProtoField.bytes("tavrin_announce.trailing", "Bytes after the frame"),
}
announce.fields = a

local ae = {
  invalid = ProtoExpert.new("tavrin_announce.invalid", "Not a valid frame: receivers drop it",
    expert.group.MALFORMED, expert.severity.ERROR),
  not_announce = ProtoExpert.new("tavrin_announce.not_announce",
    "Not an announce message: receivers ignore it", expert.group.PROTOCOL, expert.severity.WARN),
  format = ProtoExpert.new("tavrin_announce.format",
    "Payload format version other than 0: receivers ignore the message",
    expert.group.PROTOCOL, expert.severity.WARN),
  record_version = ProtoExpert.new("tavrin_announce.record_version",
    "Connector record version other than 0: receivers skip it",
    expert.group.PROTOCOL, expert.severity.NOTE),
  record_length = ProtoExpert.new("tavrin_announce.record_length",
    "Record length disagrees with the fields it holds", expert.group.MALFORMED, expert.severity.WARN),
  short = ProtoExpert.new("tavrin_announce.short", "Payload ends before a field",
    expert.group.MALFORMED, expert.severity.ERROR),
}
announce.experts = ae

announce.prefs.port = Pref.uint("Announce UDP port", 30300, "UDP port of the announce group")
announce.prefs.group = Pref.string("Announce group", "",
  "Decode datagrams to the port only when sent to this group (empty: any destination)")

local function dissect_connector(tvb, tree, r)
  local record_start = r.offset
  local record = tree:add(a.connector, tvb(r.offset, math.min(6, r:remaining())))
  local version = r:u16(a.connector_version, "connector version", record)
  local record_length = r:u32(a.record_length, "record length", record)
  if not record_length then return false end
  local body = r.offset
  local record_end = math.min(body + record_length, r.limit)
  record:set_len(record_end - record_start)
  if version ~= 0 then
    if record_end > body then record:add(a.skipped, tvb(body, record_end - body)) end
    record:add_proto_expert_info(ae.record_version)
    record:append_text(": version " .. version .. ", skipped")
    r.offset = record_end
    return true
  end
  local inner = new_reader(tvb, record, body, record_end)
  local id = inner:u32(a.connector_id, "connector id")
  local ctype = inner:u16(a.connector_type, "connector type")
  inner:u32(a.cluster_id, "cluster id")
  local ip_text
  if inner:fits(4, "address") then
    record:add(a.ip, tvb(inner.offset, 4))
    ip_text = tostring(tvb(inner.offset, 4):ipv4())
    inner.offset = inner.offset + 4
  end
  local port = inner:u16(a.port, "port")
  local count = inner:u16(a.announcement_count, "announcement count")
  for _ = 1, count or 0 do
    local entry = record:add(a.announcement, tvb(inner.offset, math.max(0, math.min(9, inner:remaining()))))
    local entry_start = inner.offset
    local aid = inner:u32(a.announcement_id, "announcement id", entry)
    local atype = inner:u16(a.announcement_type, "announcement type", entry)
    local name = inner:string(a.announcement_name, "announcement name", entry)
    local flags, flags_item = inner:u16(a.announcement_flags, "announcement flags", entry)
    if not flags then break end
    flags_item:add_le(a.available, tvb(inner.offset - 2, 2))
    entry:set_len(inner.offset - entry_start)
    entry:append_text(string.format(" %u (type %u): '%s', %s", aid, atype, name,
      bit32.band(flags, 1) ~= 0 and "available" or "not available"))
  end
  if id and port then
    record:append_text(string.format(" %u: %s, %s:%u, %u announcements", id,
      name_of(interface_types, ctype), ip_text, port, count or 0))
  end
  if inner.short then
    record:add_proto_expert_info(ae.short, "Record ends before the " .. inner.short)
  elseif inner.offset ~= record_end then
    record:add_proto_expert_info(ae.record_length, "Record length " .. record_length ..
      ", fields take " .. (inner.offset - body))
  end
  r.offset = record_end
  return true
end

local function to_other_group(pinfo)
  local group = announce.prefs.group
  return group ~= "" and tostring(pinfo.dst) ~= group
end

function announce.dissector(tvb, pinfo, tree)
  if to_other_group(pinfo) then return 0 end
  local length = tvb:len()
  pinfo.cols.protocol = "Tavrin announce"
  local root = tree:add(announce, tvb())
  if length < HEADER_LENGTH + 1 or tvb(0, 1):uint() ~= START_DELIMITER then
    root:add_proto_expert_info(ae.invalid, "Too short or no start delimiter")
    pinfo.cols.info = "Invalid frame"
    return length
  end
  root:add(a.start, tvb(0, 1))
  local length_field = tvb(1, 4):le_uint()
  local length_item = root:add_le(a.length, tvb(1, 4))
  local message_type = tvb(5, 1):uint()
  root:add(a.type, tvb(5, 1))
  local change_count = tvb(6, 4):le_uint()
  root:add_le(a.change_count, tvb(6, 4))
  if length_field < MIN_LENGTH_FIELD or length_field > length - 5 then
    length_item:add_proto_expert_info(ae.invalid, "Length " .. length_field ..
      " does not fit the datagram of " .. length .. " bytes")
    pinfo.cols.info = "Invalid frame"
    return length
  end
  local limit = length_field + 4
  local function add_end()
    root:add(a.end_delimiter, tvb(limit, 1))
    if limit + 1 < length then root:add(a.trailing, tvb(limit + 1, length - limit - 1)) end
  end
  if tvb(limit, 1):uint() ~= END_DELIMITER then
    root:add(a.end_delimiter, tvb(limit, 1)):add_proto_expert_info(ae.invalid,
      "End delimiter is not 0x5A")
    pinfo.cols.info = "Invalid frame"
    return length
  end
  if message_type ~= ANNOUNCE then
    root:add_proto_expert_info(ae.not_announce)
    add_end()
    pinfo.cols.info = "Not an announce message (type " .. message_type .. ")"
    return length
  end

  local r = new_reader(tvb, root, HEADER_LENGTH, limit)
  local format = r:u16(a.format_version, "format version")
  if format ~= 0 then
    if format then root:add_proto_expert_info(ae.format) end
  else
    local network = r:u32(a.network_id, "network id")
    local device = r:u32(a.device_id, "device id")
    local name = r:string(a.device_name, "device name")
    local count = r:u16(a.connector_count, "connector count")
    for _ = 1, count or 0 do
      if not dissect_connector(tvb, root, r) then break end
    end
    if count then
      local text = string.format("network %u, device %u '%s', change count %u, %u connectors",
        network, device, name, change_count, count)
      root:append_text(", " .. text)
      pinfo.cols.info = "Announce " .. text
    end
  end
  if r.short then
    root:add_proto_expert_info(ae.short, "Payload ends before the " .. r.short)
    pinfo.cols.info = "Announce [payload too short]"
  end
  add_end()
  return length
end

local function announce_heuristic(tvb, pinfo, tree)
  local length = tvb:len()
  if length < HEADER_LENGTH + 3 or to_other_group(pinfo) then return false end
  if tvb(0, 1):uint() ~= START_DELIMITER or tvb(5, 1):uint() ~= ANNOUNCE then return false end
  local length_field = tvb(1, 4):le_uint()
  if length_field + 5 > length or tvb(length_field + 4, 1):uint() ~= END_DELIMITER then
    return false
  end
  announce.dissector(tvb, pinfo, tree)
  return true
end
announce:register_heuristic("udp", announce_heuristic)

---------------------------------------------------------------------------------------------------
-- Port registration, following the preferences.

local registered_master_ports = ""
local registered_announce_port = 0

local function register_ports()
  local tcp_ports = DissectorTable.get("tcp.port")
  if registered_master_ports ~= "" then tcp_ports:remove(registered_master_ports, tavrin) end
  registered_master_ports = tostring(tavrin.prefs.master_ports)
  if registered_master_ports ~= "" then tcp_ports:add(registered_master_ports, tavrin) end

  local udp_ports = DissectorTable.get("udp.port")
  if registered_announce_port ~= 0 then udp_ports:remove(registered_announce_port, announce) end
  registered_announce_port = announce.prefs.port
  if registered_announce_port ~= 0 then udp_ports:add(registered_announce_port, announce) end
end

tavrin.prefs_changed = register_ports
announce.prefs_changed = register_ports
register_ports()
