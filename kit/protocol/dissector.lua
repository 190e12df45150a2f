-- Wireshark dissector of recordings of a driver's frames (ptzctl record). Made from the description of the messages;
-- the tables of this version of the protocol stand first.

-- @TABLES@

local ptz = Proto("ptz", "Pan-tilt-zoom driver")

local pseudo_header_size, header_size = 24, 8
local pf = {
  direction = ProtoField.uint8("ptz.direction", "Direction", base.DEC, {[0] = "request", [1] = "reply"}),
  past = ProtoField.bool("ptz.past", "Older than the recording", 8, nil, 1),
  unsent = ProtoField.bool("ptz.unsent", "Could not be sent", 8, nil, 2),
  client = ProtoField.uint32("ptz.client", "Client", base.DEC),
  pid = ProtoField.int32("ptz.pid", "Process of the client", base.DEC),
  uid = ProtoField.uint32("ptz.uid", "User of the client", base.DEC),
  lost = ProtoField.uint32("ptz.lost", "Frames lost before this one", base.DEC),
  length = ProtoField.uint32("ptz.length", "Length of the frame", base.DEC),
  message_id = ProtoField.uint32("ptz.message_id", "Message id", base.DEC),
  command = ProtoField.int32("ptz.command", "Command", base.DEC, command_titles),
  refused_command = ProtoField.int32("ptz.refused_command", "Refused command", base.DEC, command_titles),
  request_in = ProtoField.framenum("ptz.request_in", "Request in frame", base.NONE, frametype.REQUEST),
  reply_in = ProtoField.framenum("ptz.reply_in", "Reply in frame", base.NONE, frametype.RESPONSE),
  latency = ProtoField.relative_time("ptz.latency", "Latency"),
  rest = ProtoField.bytes("ptz.undecoded", "Bytes that cannot be decoded"),
}
local ef = {
  malformed = ProtoExpert.new("ptz.malformed", "Malformed body", expert.group.MALFORMED, expert.severity.ERROR),
  framing = ProtoExpert.new("ptz.malformed_frame", "Malformed frame", expert.group.MALFORMED, expert.severity.ERROR),
  lost = ProtoExpert.new("ptz.frames_lost", "Frames were lost before this one", expert.group.SEQUENCE,
                         expert.severity.WARN),
  unsent = ProtoExpert.new("ptz.reply_unsent", "The reply could not be sent", expert.group.RESPONSE_CODE,
                           expert.severity.WARN),
  refused = ProtoExpert.new("ptz.refused", "The request was refused", expert.group.RESPONSE_CODE, expert.severity.NOTE),
  unknown = ProtoExpert.new("ptz.unknown_command", "No such command", expert.group.UNDECODED, expert.severity.WARN),
}

local constructors = {u8 = ProtoField.uint8, u16 = ProtoField.uint16, u32 = ProtoField.uint32, i32 = ProtoField.int32}
local all_fields, all_experts = {}, {}
for _, field in pairs(pf) do all_fields[#all_fields + 1] = field end
for _, field in pairs(ef) do all_experts[#all_experts + 1] = field end

-- One field of the dissector for each path, such as ptz.move.value.pan. Requests and replies share theirs.
local made = {}
local function make(path, title, item)
  if made[path] then return made[path] end
  local field
  if item.kind == "text" then
    field = ProtoField.string("ptz." .. path, title)
  elseif item.kind == "list" then
    field = ProtoField.uint32("ptz." .. path, title .. ", number of entries", base.DEC)
  else
    field = constructors[item.kind]("ptz." .. path, title, item.bits and base.HEX or base.DEC,
                                    item.enum and enumerations[item.enum])
  end
  made[path] = field
  all_fields[#all_fields + 1] = field
  return field
end

local function prepare(items, path)
  for _, item in ipairs(items) do
    local name = item.axis and item.name .. "." .. axes[item.axis] or item.name
    item.label = name
    item.field = make(path .. name, name, item)
    if item.record then
      item.items = {}
      for i, part in ipairs(records[item.record]) do item.items[i] = setmetatable({}, {__index = part}) end
      prepare(item.items, path .. name .. ".")
    elseif item.kind == "list" then
      item.element = make(path .. name .. ".text", name, {kind = "text"})
    end
  end
end
-- A command's own field, such as ptz.move, is for filters: its requests, replies and refusals have it.
for number, command in pairs(commands) do
  command.field = ProtoField.none("ptz." .. command.name, command_titles[number])
  all_fields[#all_fields + 1] = command.field
  prepare(command.request, command.name .. ".")
  prepare(command.reply, command.name .. ".")
end

ptz.fields = all_fields
ptz.experts = all_experts

-- Requests that wait for their reply, and what the first pass has found out about each frame.
local waiting, peers
function ptz.init()
  waiting, peers = {}, {}
end

local function is_utf8(text)
  local at, length = 1, #text
  while at <= length do
    local first = text:byte(at)
    local more, code, least
    if first == 0 then return false
    elseif first < 0x80 then more, code, least = 0, first, 1
    elseif first >= 0xC2 and first < 0xE0 then more, code, least = 1, first - 0xC0, 0x80
    elseif first >= 0xE0 and first < 0xF0 then more, code, least = 2, first - 0xE0, 0x800
    elseif first >= 0xF0 and first < 0xF5 then more, code, least = 3, first - 0xF0, 0x10000
    else return false end
    if at + more > length then return false end
    for i = 1, more do
      local byte = text:byte(at + i)
      if byte < 0x80 or byte > 0xBF then return false end
      code = code * 64 + byte - 0x80
    end
    if code < least or code > 0x10FFFF or (code >= 0xD800 and code <= 0xDFFF) then return false end
    at = at + more + 1
  end
  return true
end

-- For people: without characters that would break the line.
local function printable(text)
  return (text:gsub("[%c]", "?"))
end

local function meaning(item, value)
  if item.bits then
    local names = {}
    for _, flag in ipairs(item.bits) do
      if bit.band(value, flag[1]) ~= 0 then names[#names + 1] = flag[2] end
    end
    return #names > 0 and table.concat(names, " ") or "none"
  end
  if item.enum then return enumerations[item.enum][value] or ("unknown " .. value) end
  if item.divisor then return string.format("%.2f %s", value / item.divisor, item.unit) end
  if item.unit then return value .. " " .. item.unit end
  return tostring(value)
end

-- Reads the items of a body. Throws nothing: `problem` says what is wrong.
local Reader = {}
Reader.__index = Reader

function Reader:left() return self.size - self.at end

function Reader:fail(item, problem)
  self.problem = string.format("%s at byte %d: %s", item.label, self.at, problem)
  return false
end

function Reader:note(text)
  if #self.words < 24 then self.words[#self.words + 1] = text end
end

local sizes = {u8 = 1, u16 = 2, u32 = 4, i32 = 4}
function Reader:number(item, tree, before)
  local size = sizes[item.kind]
  if self:left() < size then return self:fail(item, "the body is too short") end
  local range = self.body(self.at, size)
  local value = item.kind == "i32" and range:le_int() or range:le_uint()
  local shown = meaning(item, value)
  local node = tree:add_le(item.field, range)
  if item.bits or item.unit then node:append_text(" (" .. shown .. ")") end
  if item.kind == "u8" and item.label == "axes" then self.axes_named = value end
  local is_unused = item.axis and self.axes_named and bit.band(self.axes_named, bit.lshift(1, item.axis - 1)) == 0
  if not is_unused then self:note(before .. item.label .. "=" .. shown) end
  self.at = self.at + size
  return true
end

function Reader:text(item, tree, before, field)
  if self:left() < 2 then return self:fail(item, "the body is too short") end
  local length = self.body(self.at, 2):le_uint()
  if self:left() < 2 + length then return self:fail(item, "the body is too short") end
  local text = length > 0 and self.body(self.at + 2, length):raw() or ""
  if not is_utf8(text) then return self:fail(item, "the text is not UTF-8") end
  if length > 0 then
    tree:add_packet_field(field, self.body(self.at + 2, length), ENC_UTF_8)
  else
    tree:add(field, self.body(self.at, 2), "")
  end
  self:note(before .. item.label .. '="' .. printable(text) .. '"')
  self.at = self.at + 2 + length
  return true
end

function Reader:list(item, tree)
  if self:left() < 4 then return self:fail(item, "the body is too short") end
  local count = self.body(self.at, 4):le_uint()
  local node = tree:add_le(item.field, self.body(self.at, 4))
  if count > (self:left() - 4) / item.least then return self:fail(item, "the list is longer than the body") end
  self.at = self.at + 4
  self:note(item.label .. ": " .. count)
  for i = 0, count - 1 do
    local before = item.label .. "[" .. i .. "]"
    if item.items then
      local entry = node:add(ptz, self.body(self.at), before)
      local start = self.at
      if not self:items(item.items, entry, before .. ".") then return false end
      entry:set_len(self.at - start)
    elseif not self:text({label = before}, node, "", item.element) then
      return false
    end
  end
  return true
end

function Reader:items(items, tree, before)
  for _, item in ipairs(items) do
    -- A field of a later version stands at the end, and may be absent.
    if item.later and self:left() == 0 then return true end
    local is_read
    if item.kind == "text" then
      is_read = self:text(item, tree, before, item.field)
    elseif item.kind == "list" then
      is_read = self:list(item, tree)
    else
      is_read = self:number(item, tree, before)
    end
    if not is_read then return false end
  end
  return true
end

local function title_of(command) return command_titles[command] or ("command " .. command) end

-- Links a reply to the oldest request of the same client and message id that waits. A second pass shows both ends.
local function link(pinfo, tree, command, is_reply, key)
  local number = pinfo.number
  if not pinfo.visited then
    peers[number] = {}
    if is_reply then
      local queue = waiting[key]
      local request = queue and table.remove(queue, 1)
      if request then
        peers[number] = {request = request.number, command = request.command, latency = pinfo.rel_ts - request.time}
        peers[request.number].reply = number
      end
    else
      waiting[key] = waiting[key] or {}
      table.insert(waiting[key], {number = number, time = pinfo.rel_ts, command = command})
    end
  end
  local peer = peers[number] or {}
  if peer.request then
    tree:add(pf.request_in, peer.request):set_generated()
    local latency = math.max(peer.latency, 0)
    local seconds = math.floor(latency)
    tree:add(pf.latency, NSTime.new(seconds, math.floor((latency - seconds) * 1e9 + 0.5))):set_generated()
  elseif peer.reply then
    tree:add(pf.reply_in, peer.reply):set_generated()
  end
  return peer
end

local function add_pseudo_header(tvb, tree)
  local node = tree:add(ptz, tvb(0, pseudo_header_size), "Recorded by ptzctl")
  node:add_le(pf.direction, tvb(4, 1))
  node:add_le(pf.past, tvb(5, 1))
  local unsent = node:add_le(pf.unsent, tvb(5, 1))
  if bit.band(tvb(5, 1):le_uint(), 2) ~= 0 then unsent:add_proto_expert_info(ef.unsent) end
  node:add_le(pf.client, tvb(8, 4))
  node:add_le(pf.pid, tvb(12, 4))
  node:add_le(pf.uid, tvb(16, 4))
  local lost = node:add_le(pf.lost, tvb(20, 4))
  if tvb(20, 4):le_uint() > 0 then
    lost:add_proto_expert_info(ef.lost, tvb(20, 4):le_uint() .. " frames were lost before this one")
  end
end

local function fail(tree, kind, problem)
  tree:add_proto_expert_info(kind, problem)
  return "malformed: " .. problem
end

-- The body behind the command word: what the info column says of it.
local function add_body(body, tree, is_reply, command)
  local described = commands[command]
  if command == -1 and not is_reply then described = {name = "error", request = {}, reply = {}} end
  if not described then
    tree:add_proto_expert_info(ef.unknown)
    if body:len() > 4 then tree:add(pf.rest, body(4)) end
    return "no such command", false
  end
  local reader = setmetatable({body = body, size = body:len(), at = 4, words = {}}, Reader)
  local is_read = reader:items(is_reply and described.reply or described.request, tree, "")
  if is_read and reader:left() > 0 then
    reader.problem = reader:left() .. " bytes left over at byte " .. reader.at
  end
  if reader.problem then
    if reader:left() > 0 then tree:add(pf.rest, body(reader.at)) end
    return fail(tree, ef.malformed, reader.problem), true
  end
  return table.concat(reader.words, " "), false
end

local function info_of(is_reply, command, peer, text, body, is_malformed)
  if is_reply and command == -1 and not is_malformed and body:len() >= 10 then
    local code = body(4, 4):le_uint()
    local of = peer.command and title_of(peer.command) or "request"
    local reason = body:len() > 10 and body(10):raw() or ""
    return string.format("%s refused: error %d (%s): %s", of, code, error_names[code] or "unknown", printable(reason)), true
  end
  local before = title_of(command) .. (is_reply and " reply" or "")
  return text ~= "" and before .. ": " .. text or before, false
end

local function add_filter_fields(body, tree, command, peer, is_refused)
  local of = is_refused and peer.command or command
  if commands[of] then tree:add(commands[of].field, body(0, 4)):set_hidden(true) end
  if is_refused and peer.command then tree:add(pf.refused_command, peer.command):set_generated() end
end

local function show_ends(tvb, pinfo, is_reply)
  local client = string.format("client %d", tvb(8, 4):le_uint())
  pinfo.cols.protocol = "PTZ"
  pinfo.cols.src = is_reply and "driver" or client
  pinfo.cols.dst = is_reply and client or "driver"
end

-- Why there is no frame to decode.
local function framing_problem(tvb)
  if tvb:len() < pseudo_header_size + header_size then return "too short for a frame" end
  if tvb(0, 4):raw() ~= "PTZ1" then return "no frame of a recording" end
  if tvb(4, 1):uint() > 1 then return "neither a request nor a reply" end
  return nil
end

function ptz.dissector(tvb, pinfo, root)
  if tvb:reported_len() ~= tvb:len() then return 0 end
  local tree = root:add(ptz, tvb())
  local problem = framing_problem(tvb)
  if problem then
    pinfo.cols.protocol = "PTZ"
    pinfo.cols.info = fail(tree, ef.framing, problem)
    return tvb:len()
  end
  local is_reply = tvb(4, 1):uint() == 1
  show_ends(tvb, pinfo, is_reply)
  add_pseudo_header(tvb, tree)
  local frame = tvb(pseudo_header_size):tvb()
  tree:add_le(pf.length, frame(0, 4))
  tree:add_le(pf.message_id, frame(4, 4))
  if frame(0, 4):le_uint() ~= frame:len() or frame:len() > most_frame_bytes then
    local shown = string.format("the header says %.0f bytes, there are %d", frame(0, 4):le_uint(), frame:len())
    pinfo.cols.info = fail(tree, ef.framing, shown)
    return tvb:len()
  end
  local key = tvb(8, 4):le_uint() .. ":" .. frame(4, 4):le_uint()
  local has_command = frame:len() >= header_size + 4
  local command = has_command and frame(header_size, 4):le_int() or nil
  local peer = link(pinfo, tree, command, is_reply, key)
  if not has_command then
    pinfo.cols.info = fail(tree, ef.malformed, "the body is too short for a command")
    return tvb:len()
  end
  local body = frame(header_size):tvb()
  tree:add_le(pf.command, body(0, 4))
  local text, is_malformed = add_body(body, tree, is_reply, command)
  local info, is_refused = info_of(is_reply, command, peer, text, body, is_malformed)
  add_filter_fields(body, tree, command, peer, is_refused)
  if is_refused then tree:add_proto_expert_info(ef.refused, info) end
  pinfo.cols.info = info
  return tvb:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, ptz)
