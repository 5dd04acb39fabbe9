-- Wireshark dissector for the frames of the qx7 connection manager and the job messages of
-- qx_jpmd (protocol "QX7", display filter prefix "qx7").
--
-- Every frame on a connection is a 48-byte text header (total length as 8 decimal digits,
-- eye-catcher "QX7:global", version, protocol "NAT", "GSS" or "IPC", coding, session) and a
-- body:
--   NAT  keyed entries (key byte, a length in one of four forms, data): destination name,
--        value and address, a native payload (the agent's greeting and reply), a NAT payload
--        (the messenger's MELD job message to "JPAKTJ_R") and a source block;
--   IPC  an internal record that starts with its 16-byte type name (ROUTENAT, PASSFD,
--        LOGGING; CHANNEL_CLOSE and CHANNEL_ACCEPT are made only inside a process);
--   GSS  the sender's bytes, shown raw.
-- Binary lengths and the MELD integers are least significant byte first; the fields that the
-- sender stores in host order are read the same way (the messenger's hosts are little-endian).
--
-- Frames are cut out of the TCP stream by their header length, across segments and several
-- to a segment. The dissector follows the receiver: what the receiver rejects (a length that
-- is not 8 digits, lies inside the header or beyond any frame the receiver takes, an unknown
-- key, an entry that runs past its frame) is shown as expert information on the frame, and
-- the rest of that direction of the connection, which the receiver no longer reads, as data.
-- Nothing in here raises a Lua error on any input: every read is checked against the data
-- first, and each frame is dissected under pcall so that a fault shows as expert information.
--
-- Load it with `wireshark -X lua_script:qx7.lua` or put it into a Lua plugin folder
-- (Help > About > Folders). It dissects TCP port 2217 (the agent simulator's default; see the
-- protocol preferences) and, by a heuristic on the header's shape, any other port (a
-- preference too).

-- Loaded twice (a plugin folder and -X lua_script), the second copy leaves the first in place.
do
  local ok, first = pcall(Dissector.get, "qx7")
  if ok and first ~= nil then
    return
  end
end

local qx7 = Proto("qx7", "QX7 connection manager and job messages")

local HEADER_SIZE = 48
-- The receiver's bound for one frame (16 MiB); a longer announced length is malformed.
local MAX_FRAME = 16 * 1024 * 1024
local DEFAULT_PORT = 2217

-- Length forms of the keyed entries: bytes before the data.
local SHORT, U16, U32, DECIMAL = 2, 3, 5, 8

local KEYS = {
  [0x01] = { SHORT, "destination name" },
  [0x02] = { SHORT, "destination value" },
  [0x03] = { SHORT, "destination address" },
  [0x04] = { SHORT, "native payload" },
  [0x07] = { SHORT, "native payload" },
  [0x3B] = { U16, "native payload" },
  [0xF9] = { U16, "native payload" },
  [0x41] = { DECIMAL, "native payload" },
  [0x44] = { DECIMAL, "native payload" },
  [0xFD] = { U16, "source block" },
  [0xFE] = { U16, "NAT payload" },
  [0xFF] = { U32, "NAT payload" },
}
local KEY_NAMES = {}
for k, v in pairs(KEYS) do
  KEY_NAMES[k] = v[2]
end
local SUB_KEY_NAMES = { [0x01] = "source name", [0x02] = "source value", [0x03] = "source address" }

local STATUS_NAMES = {
  E = "end",
  R = "running (start, restart, snooze or wake-up)",
  O = "output view",
  V = "variable",
}

-- Offsets inside a MELD body (from its first byte).
local MELD_SIZE = 276
local MELD_VARIABLE_BASE = 296
local VARIABLE_RECORD = 1225

local f = {
  -- header
  header = ProtoField.none("qx7.header", "Protocol header"),
  length = ProtoField.uint32("qx7.length", "Total length", base.DEC),
  length_text = ProtoField.string("qx7.length_text", "Total length (text)"),
  eyecatcher = ProtoField.string("qx7.eyecatcher", "Eye-catcher"),
  version = ProtoField.string("qx7.version", "Version"),
  protocol = ProtoField.string("qx7.protocol", "Protocol"),
  coding = ProtoField.string("qx7.coding", "Coding"),
  session = ProtoField.string("qx7.session", "Session ID"),
  message = ProtoField.string("qx7.message", "Message"),
  -- keyed entries
  entry = ProtoField.none("qx7.entry", "Entry"),
  key = ProtoField.uint8("qx7.key", "Key", base.HEX, KEY_NAMES),
  entry_length = ProtoField.uint32("qx7.entry.length", "Length", base.DEC),
  entry_data = ProtoField.bytes("qx7.entry.data", "Data"),
  dst_name = ProtoField.string("qx7.dst.name", "Destination name"),
  dst_acv = ProtoField.uint32("qx7.dst.acv", "Destination value", base.HEX),
  dst_addr = ProtoField.string("qx7.dst.addr", "Destination address"),
  native_key = ProtoField.uint8("qx7.native.key", "Native key", base.HEX),
  native_text = ProtoField.string("qx7.native.text", "Native text"),
  payload = ProtoField.bytes("qx7.payload", "Payload"),
  sub_key = ProtoField.uint8("qx7.src.key", "Sub-key", base.HEX, SUB_KEY_NAMES),
  sub_length = ProtoField.uint8("qx7.src.length", "Length", base.DEC),
  src_name = ProtoField.string("qx7.src.name", "Source name"),
  src_acv = ProtoField.uint32("qx7.src.acv", "Source value", base.HEX),
  src_addr = ProtoField.string("qx7.src.addr", "Source address"),
  gss_data = ProtoField.bytes("qx7.gss.data", "GSS data"),
  data = ProtoField.bytes("qx7.data", "Data"),
  -- MELD job messages
  meld = ProtoField.none("qx7.meld", "MELD job message"),
  meld_type = ProtoField.string("qx7.meld.type", "Message type"),
  meld_version = ProtoField.string("qx7.meld.version", "Record version"),
  client = ProtoField.uint16("qx7.meld.client", "Client", base.DEC),
  user_id = ProtoField.int32("qx7.meld.user_id", "User ID number", base.DEC),
  msgnr = ProtoField.int32("qx7.meld.msgnr", "Message number", base.DEC),
  job = ProtoField.uint32("qx7.meld.job", "Job number", base.DEC),
  status = ProtoField.string("qx7.meld.status", "Status"),
  text = ProtoField.string("qx7.meld.text", "Text"),
  md_version = ProtoField.string("qx7.meld.md_version", "Messenger version"),
  md_major = ProtoField.int16("qx7.meld.md_major", "Major", base.DEC),
  md_minor = ProtoField.int16("qx7.meld.md_minor", "Minor", base.DEC),
  md_patch = ProtoField.int16("qx7.meld.md_patch", "Patch", base.DEC),
  rc = ProtoField.int32("qx7.meld.rc", "Return code", base.DEC),
  cpu_time = ProtoField.int32("qx7.meld.cpu_time", "CPU time", base.DEC),
  utc = ProtoField.string("qx7.meld.utc", "Time stamp (UTC)"),
  year = ProtoField.uint16("qx7.meld.utc.year", "Year", base.DEC),
  month = ProtoField.uint16("qx7.meld.utc.month", "Month", base.DEC),
  day = ProtoField.uint16("qx7.meld.utc.day", "Day", base.DEC),
  hour = ProtoField.uint16("qx7.meld.utc.hour", "Hour", base.DEC),
  minute = ProtoField.uint16("qx7.meld.utc.minute", "Minute", base.DEC),
  second = ProtoField.uint16("qx7.meld.utc.second", "Second", base.DEC),
  ns = ProtoField.uint32("qx7.meld.utc.ns", "Nanoseconds", base.DEC),
  seconds = ProtoField.uint32("qx7.meld.seconds", "Seconds since 1970", base.DEC),
  pid = ProtoField.uint32("qx7.meld.pid", "Process ID", base.DEC),
  ppid = ProtoField.uint32("qx7.meld.ppid", "Parent process ID", base.DEC),
  pgrp = ProtoField.uint32("qx7.meld.pgrp", "Process group", base.DEC),
  pgid = ProtoField.uint32("qx7.meld.pgid", "Process group ID", base.DEC),
  sid = ProtoField.uint32("qx7.meld.sid", "Session ID", base.DEC),
  uid = ProtoField.uint32("qx7.meld.uid", "User ID", base.DEC),
  euid = ProtoField.uint32("qx7.meld.euid", "Effective user ID", base.DEC),
  gid = ProtoField.uint32("qx7.meld.gid", "Group ID", base.DEC),
  egid = ProtoField.uint32("qx7.meld.egid", "Effective group ID", base.DEC),
  ucpu = ProtoField.uint32("qx7.meld.ucpu", "User CPU", base.DEC),
  scpu = ProtoField.uint32("qx7.meld.scpu", "System CPU", base.DEC),
  io_count = ProtoField.uint32("qx7.meld.io_count", "I/O count", base.DEC),
  login_check = ProtoField.string("qx7.meld.login_check", "Login check"),
  file = ProtoField.string("qx7.meld.file", "Output file"),
  var_dist = ProtoField.int32("qx7.meld.var.dist", "Variable record distance", base.DEC),
  var_len = ProtoField.int32("qx7.meld.var.len", "Variable record length", base.DEC),
  var_name = ProtoField.string("qx7.meld.var.name", "Variable name"),
  var_value = ProtoField.string("qx7.meld.var.value", "Variable value"),
  var_type = ProtoField.string("qx7.meld.var.type", "Variable type"),
  -- internal records
  ipc_type = ProtoField.string("qx7.ipc.type", "Internal message type"),
  ipc_addr = ProtoField.none("qx7.ipc.addr", "Address record"),
  a_eyec = ProtoField.string("qx7.ipc.addr.eyec", "Eye-catcher"),
  a_type = ProtoField.int32("qx7.ipc.addr.type", "Type", base.DEC),
  a_dst_id = ProtoField.int32("qx7.ipc.addr.dst_id", "Destination ID", base.DEC),
  a_dst_addr = ProtoField.string("qx7.ipc.addr.dst_addr", "Destination address"),
  a_dst_name = ProtoField.string("qx7.ipc.addr.dst_name", "Destination name"),
  a_dst_acv = ProtoField.uint32("qx7.ipc.addr.dst_acv", "Destination value", base.HEX),
  a_src_id = ProtoField.int32("qx7.ipc.addr.src_id", "Source ID", base.DEC),
  a_src_addr = ProtoField.string("qx7.ipc.addr.src_addr", "Source address"),
  a_src_name = ProtoField.string("qx7.ipc.addr.src_name", "Source name"),
  a_src_acv = ProtoField.uint32("qx7.ipc.addr.src_acv", "Source value", base.HEX),
  a_src_type = ProtoField.int32("qx7.ipc.addr.src_type", "Source type", base.DEC),
  route_len = ProtoField.int32("qx7.ipc.route.len", "Routed payload length", base.DEC),
  fd = ProtoField.int32("qx7.ipc.fd", "Descriptor", base.DEC),
  agent_id = ProtoField.int32("qx7.ipc.agent_id", "Agent ID", base.DEC),
  listener_id = ProtoField.int32("qx7.ipc.listener_id", "Listener ID", base.DEC),
  fd_name = ProtoField.string("qx7.ipc.name", "Name"),
  log_msgnr = ProtoField.int32("qx7.ipc.log.msgnr", "Log message number", base.DEC),
  log_insert = ProtoField.string("qx7.ipc.log.insert", "Log insert"),
  channel_id = ProtoField.int32("qx7.ipc.channel_id", "Channel ID", base.DEC),
}
local field_list = {}
for _, v in pairs(f) do
  field_list[#field_list + 1] = v
end
qx7.fields = field_list

local e = {
  length = ProtoExpert.new("qx7.expert.length", "Malformed frame length", expert.group.MALFORMED,
    expert.severity.ERROR),
  protocol = ProtoExpert.new("qx7.expert.protocol", "Unknown protocol", expert.group.MALFORMED,
    expert.severity.ERROR),
  key = ProtoExpert.new("qx7.expert.key", "Unknown key", expert.group.MALFORMED,
    expert.severity.ERROR),
  entry = ProtoExpert.new("qx7.expert.entry", "Entry runs past its frame",
    expert.group.MALFORMED, expert.severity.ERROR),
  truncated = ProtoExpert.new("qx7.expert.truncated", "Truncated record",
    expert.group.MALFORMED, expert.severity.WARN),
  closed = ProtoExpert.new("qx7.expert.closed", "Connection ended inside a frame",
    expert.group.MALFORMED, expert.severity.ERROR),
  after = ProtoExpert.new("qx7.expert.after", "Data after a malformed frame",
    expert.group.SEQUENCE, expert.severity.NOTE),
  forged = ProtoExpert.new("qx7.expert.forged", "Internal notice on a connection",
    expert.group.SECURITY, expert.severity.WARN),
  odd = ProtoExpert.new("qx7.expert.odd", "Unusual content", expert.group.PROTOCOL,
    expert.severity.NOTE),
  fault = ProtoExpert.new("qx7.expert.fault", "Dissector fault", expert.group.MALFORMED,
    expert.severity.ERROR),
}
qx7.experts = { e.length, e.protocol, e.key, e.entry, e.truncated, e.closed, e.after,
  e.forged, e.odd, e.fault }

qx7.prefs.tcp_port = Pref.uint("TCP port", DEFAULT_PORT,
  "TCP port of the agent (the agent simulator listens on 2217 by default); other ports are "
  .. "found by the heuristic on the header")
qx7.prefs.heuristic = Pref.bool("Find frames on other ports", true,
  "Take a TCP connection on any port whose data begins with a header (eye-catcher QX7:global)")

local tcp_stream = Field.new("tcp.stream")
local tcp_fin = Field.new("tcp.flags.fin")
local tcp_rst = Field.new("tcp.flags.reset")

-- State gathered on the first pass over a capture, keyed by connection and direction; later
-- passes only read it, so every pass shows the same.
local first_meld = {}    -- stream -> number of the first packet that carried a MELD message
local broken = {}        -- direction -> packet whose malformed frame ended that direction
local pending = {}       -- direction -> { packet, length } of a frame still waiting for data
local closed_inside = {} -- packet number -> { packet, length } of a frame its close cut off

function qx7.init()
  first_meld, broken, pending, closed_inside = {}, {}, {}, {}
end

local function stream_of(pinfo)
  local s = tcp_stream()
  if s ~= nil then
    return tostring(s.value)
  end
  return tostring(pinfo.src) .. ":" .. pinfo.src_port .. "-" .. tostring(pinfo.dst) .. ":"
      .. pinfo.dst_port
end

local function direction_of(pinfo, stream)
  return stream .. ">" .. tostring(pinfo.src) .. ":" .. pinfo.src_port
end

-- Text for the Info column and tree labels: printable ASCII, anything else as \xNN.
local function printable(s)
  return (s:gsub("[^\32-\126]", function(c)
    return string.format("\\x%02X", c:byte())
  end))
end

-- Up to the first NUL.
local function cstring(s)
  local z = s:find("\0", 1, true)
  if z then
    return s:sub(1, z - 1)
  end
  return s
end

local function rtrim(s)
  return (s:gsub(" +$", ""))
end

-- Adds fields of a record that may be cut short: each field is added only when it lies inside
-- [first, limit); a field that does not is remembered so that the record is marked truncated.
local Record = {}
Record.__index = Record

local function record(tvb, tree, first, limit)
  return setmetatable({ tvb = tvb, tree = tree, first = first, limit = limit, cut = false },
    Record)
end

function Record:has(off, size)
  local at = self.first + off
  if at + size <= self.limit then
    return true
  end
  self.cut = true
  return false
end

function Record:range(off, size)
  return self.tvb(self.first + off, size)
end

function Record:le(field, off, size, tree)
  if self:has(off, size) then
    return (tree or self.tree):add_le(field, self:range(off, size))
  end
end

function Record:u32(off)
  if self:has(off, 4) then
    return self:range(off, 4):le_uint()
  end
end

function Record:i32(off)
  if self:has(off, 4) then
    return self:range(off, 4):le_int()
  end
end

-- A text field shown up to its NUL (`strip` also drops trailing blanks); returns the text.
function Record:text(field, off, size, strip, tree)
  if not self:has(off, size) then
    -- Whatever part of the field is there still shows.
    local avail = self.limit - (self.first + off)
    if avail <= 0 then
      return nil
    end
    size = avail
  end
  local s = cstring(self:range(off, size):raw())
  if strip then
    s = rtrim(s)
  end
  ;(tree or self.tree):add(field, self:range(off, size), s)
  return s
end

-- The UTC time stamp (six 16-bit fields and a nanosecond field) at `off` and the seconds since
-- 1970 at `off_t`.
local function add_time(r, off, off_t)
  if r:has(off, 16) then
    local v = {}
    for i = 0, 5 do
      v[i + 1] = r:range(off + 2 * i, 2):le_uint()
    end
    local text = string.format("%04d-%02d-%02dT%02d:%02d:%02dZ", v[1], v[2], v[3], v[4], v[5], v[6])
    local t = r.tree:add(f.utc, r:range(off, 16), text)
    local names = { f.year, f.month, f.day, f.hour, f.minute, f.second }
    for i = 0, 5 do
      t:add_le(names[i + 1], r:range(off + 2 * i, 2))
    end
    t:add_le(f.ns, r:range(off + 12, 4))
  end
  local secs = r:u32(off_t)
  if secs then
    r.tree:add_le(f.seconds, r:range(off_t, 4)):append_text(os.date("! (%Y-%m-%d %H:%M:%S UTC)",
      secs))
  end
end

-- The version block: text, a gap byte, major, minor and patch, two filler blanks.
local function add_version(r, off)
  r:text(f.md_version, off, 32, true)
  r:le(f.md_major, off + 33, 2)
  r:le(f.md_minor, off + 35, 2)
  r:le(f.md_patch, off + 37, 2)
end

local JOB_ZERO_FIELDS = {
  { f.pgid, 140 }, { f.sid, 144 }, { f.uid, 148 }, { f.euid, 152 }, { f.gid, 156 },
  { f.egid, 160 }, { f.ucpu, 164 }, { f.scpu, 168 }, { f.io_count, 172 },
}

local function quoted(s)
  return '"' .. printable(s) .. '"'
end

-- A MELD job message at [off, off + n) of `tvb`; returns the line for the Info column and
-- the kind of message.
local function dissect_meld(tvb, tree, off, n)
  local t = tree:add(f.meld, tvb(off, n))
  local r = record(tvb, t, off, off + n)
  r:text(f.meld_type, 0, 8, false)
  r:text(f.meld_version, 8, 2, false)
  r:le(f.client, 10, 2)
  r:le(f.user_id, 12, 4)
  r:le(f.msgnr, 16, 4)
  local job = r:u32(20)
  r:le(f.job, 20, 4)
  local status = r:has(24, 1) and r:range(24, 1):raw() or nil
  local line
  if status then
    t:add(f.status, r:range(24, 1), status):append_text(" (" .. (STATUS_NAMES[status] or
      "unknown") .. ")")
  end
  local jobtext = "job " .. (job and tostring(job) or "?")

  if status == "O" then
    t:set_text("MELD job message: output view")
    add_version(r, 25)
    add_time(r, 68, 84)
    local login = r:text(f.login_check, 88, 1, false)
    local file = r:text(f.file, 89, MELD_SIZE - 89, false)
    if file and #file == MELD_SIZE - 89 then
      t:add_proto_expert_info(e.odd, "output file name fills its field: it may be cut")
    end
    line = jobtext .. " output " .. quoted(file or "") .. " login=" .. printable(login or "?")
  elseif status == "V" then
    t:set_text("MELD job message: variable")
    r:text(f.text, 25, 32, true)
    add_version(r, 57)
    add_time(r, 100, 116)
    local dist = r:i32(120)
    local vlen = r:i32(124)
    r:le(f.var_dist, 120, 4)
    r:le(f.var_len, 124, 4)
    if vlen == VARIABLE_RECORD and dist == 108 then
      -- The record stands behind the 20 bytes of the body head and the 108-byte payload.
      local name = r:text(f.var_name, 128, 200, false)
      local value = r:text(f.var_value, 328, 1024, false)
      local vtype = r:has(1352, 1) and r:range(1352, 1):raw() or nil
      if vtype then
        t:add(f.var_type, r:range(1352, 1), cstring(vtype))
      end
      r:has(1352, 1 + 168)
      line = jobtext .. " variable " .. printable(name or "") .. "=" .. quoted(value or "")
          .. " type=" .. printable(cstring(vtype or ""))
    else
      if vlen ~= nil and vlen ~= 0 then
        t:add_proto_expert_info(e.odd, "variable record length " .. vlen .. " (expected 0 or "
          .. VARIABLE_RECORD .. ")")
      end
      r:has(0, MELD_VARIABLE_BASE)
      line = jobtext .. " variable (none)"
    end
  else
    local what = status == "E" and "end" or status == "R" and "running" or
        ("status " .. printable(status or "?"))
    t:set_text("MELD job message: job status, " .. what)
    local text = r:text(f.text, 25, 32, false)
    add_version(r, 57)
    local rc = r:i32(100)
    r:le(f.rc, 100, 4)
    r:le(f.cpu_time, 104, 4)
    add_time(r, 108, 124)
    r:le(f.pid, 128, 4)
    r:le(f.ppid, 132, 4)
    r:le(f.pgrp, 136, 4)
    for _, z in ipairs(JOB_ZERO_FIELDS) do
      r:le(z[1], z[2], 4)
    end
    r:has(0, MELD_SIZE)
    line = jobtext .. " " .. what .. " rc=" .. (rc and tostring(rc) or "?")
    if text and text ~= "" then
      line = line .. " " .. quoted(text)
    end
  end
  if r.cut then
    t:add_proto_expert_info(e.truncated, "MELD record cut short: " .. n .. " bytes")
    line = line .. " [truncated]"
  end
  local kind = status == "O" and "output view" or status == "V" and "variable" or "job status"
  return line, kind
end

-- A NAT payload: a MELD job message, or other bytes. Returns the Info line.
local function dissect_nat_payload(tvb, tree, off, n, dst)
  if n >= 8 and tvb(off, 8):raw() == "MELD    " then
    return dissect_meld(tvb, tree, off, n)
  end
  return "NAT to " .. printable(dst or "") .. ", " .. n .. " bytes", "NAT"
end

-- A source block: short sub-entries, walked as the receiver does (an unknown sub-key or a
-- sub-entry that does not fit ends the walk).
local function dissect_source_block(tvb, tree, off, n)
  local p, stop = off, off + n
  if n > 256 then
    tree:add_proto_expert_info(e.odd, "source block of " .. n
      .. " bytes: the receiver reads only its first 256")
  end
  while p + 2 <= stop do
    local sub = tvb(p, 1):uint()
    local sn = tvb(p + 1, 1):uint()
    if not SUB_KEY_NAMES[sub] then
      tree:add_proto_expert_info(e.odd, string.format(
        "invalid sub-key 0x%02X: the receiver ends the walk of the block", sub))
      return
    end
    if sn > stop - p - 2 then
      tree:add_proto_expert_info(e.entry, "source sub-entry runs past its block")
      return
    end
    local t = tree:add(f.entry, tvb(p, 2 + sn))
    t:set_text(SUB_KEY_NAMES[sub] .. " (" .. sn .. " bytes)")
    t:add(f.sub_key, tvb(p, 1))
    t:add(f.sub_length, tvb(p + 1, 1))
    if sub == 0x02 then
      if sn == 4 then
        t:add_le(f.src_acv, tvb(p + 2, 4))
      else
        t:add_proto_expert_info(e.odd, "source value of " .. sn .. " bytes (expected 4)")
      end
    elseif sn > 0 then
      local s = tvb(p + 2, sn):raw()
      t:add(sub == 0x01 and f.src_name or f.src_addr, tvb(p + 2, sn), s)
    end
    p = p + 2 + sn
  end
end

-- The keyed entries of a NAT-protocol body at [off, off + n). Returns the Info line and the
-- message kind, or nil and the reason when the receiver rejects the frame.
local function dissect_keyed_body(tvb, pinfo, tree, off, n, stream)
  local p, stop = off, off + n
  local dst
  local line, kind = "empty body", "empty"
  while p < stop do
    local key = tvb(p, 1):uint()
    local known = KEYS[key]
    if not known then
      local reason = string.format("unknown key 0x%02X", key)
      tree:add(f.data, tvb(p, stop - p)):add_proto_expert_info(e.key, reason
        .. ": the receiver rejects the frame")
      return nil, reason
    end
    local form, name = known[1], known[2]
    local len_ok, dn = false, 0
    if stop - p >= form then
      if form == SHORT then
        dn, len_ok = tvb(p + 1, 1):uint(), true
      elseif form == U16 then
        dn, len_ok = tvb(p + 1, 2):le_uint(), true
      elseif form == U32 then
        dn, len_ok = tvb(p + 1, 4):le_uint(), true
      else
        local digits = tvb(p + 1, 7):raw()
        if digits:match("^%d%d%d%d%d%d%d$") then
          dn, len_ok = tonumber(digits), true
        end
      end
    end
    if not len_ok then
      local reason = string.format("length of key 0x%02X %s", key, stop - p < form and
        "runs past its frame" or "is not 7 digits")
      tree:add(f.data, tvb(p, stop - p)):add_proto_expert_info(e.entry, reason)
      return nil, reason
    end
    if dn > stop - p - form then
      local reason = string.format("entry of key 0x%02X runs past its frame (%d bytes, %d left)",
        key, dn, stop - p - form)
      tree:add(f.data, tvb(p, stop - p)):add_proto_expert_info(e.entry, reason)
      return nil, reason
    end
    local t = tree:add(f.entry, tvb(p, form + dn))
    t:set_text(string.format("Entry 0x%02X %s (%d bytes)", key, name, dn))
    t:add(f.key, tvb(p, 1))
    t:add(f.entry_length, tvb(p + 1, form - 1), dn)
    local d = p + form
    if key == 0x01 or key == 0x03 then
      -- The receiver removes leading and trailing blanks.
      local s = dn > 0 and tvb(d, dn):raw():gsub("^ +", ""):gsub(" +$", "") or ""
      if key == 0x01 then
        dst = s
      end
      t:add(key == 0x01 and f.dst_name or f.dst_addr, dn > 0 and tvb(d, dn) or tvb(p, 2), s)
    elseif key == 0x02 then
      if dn ~= 4 then
        local reason = "destination value of " .. dn .. " bytes"
        t:add_proto_expert_info(e.entry, reason .. ": the receiver rejects the frame")
        return nil, reason
      end
      t:add_le(f.dst_acv, tvb(d, 4))
    elseif key == 0xFD then
      dissect_source_block(tvb, t, d, dn)
    elseif key == 0xFE or key == 0xFF then
      if dn > 0 then
        t:add(f.payload, tvb(d, dn))
      end
      line, kind = dissect_nat_payload(tvb, t, d, dn, dst)
      if kind ~= "NAT" and not pinfo.visited and
          (first_meld[stream] == nil or first_meld[stream] > pinfo.number) then
        first_meld[stream] = pinfo.number
      end
    else
      t:add(f.native_key, tvb(p, 1))
      if dn > 0 then
        t:add(f.payload, tvb(d, dn))
        t:add(f.native_text, tvb(d, dn), printable(tvb(d, dn):raw()))
      end
      if key == 0x04 then
        -- The agent greets each connection with a native message under key 4 and answers
        -- the job message with another one: before the connection's first job message it
        -- is the greeting, after it the reply.
        local m = first_meld[stream]
        if m ~= nil and m < pinfo.number then
          line, kind = "reply", "reply"
        else
          line, kind = "greeting", "greeting"
        end
      else
        line = string.format("native key 0x%02X, %d bytes", key, dn)
        kind = "native"
      end
    end
    p = p + form + dn
  end
  return line, kind
end

local ADDR_FIELDS = {
  { f.a_eyec, 0, 8, "text" }, { f.a_type, 8, 4 }, { f.a_dst_id, 12, 4 },
  { f.a_dst_addr, 16, 64, "text" }, { f.a_dst_name, 80, 64, "text" }, { f.a_dst_acv, 144, 4 },
  { f.a_src_id, 148, 4 }, { f.a_src_addr, 152, 64, "text" }, { f.a_src_name, 216, 64, "text" },
  { f.a_src_acv, 280, 4 }, { f.a_src_type, 284, 4 },
}

-- An internal record at [off, off + n). Returns the Info line and the kind.
local function dissect_ipc(tvb, tree, off, n)
  if n < 16 then
    if n > 0 then
      tree:add(f.data, tvb(off, n))
    end
    tree:add_proto_expert_info(e.truncated, "internal record without its 16-byte type")
    return "IPC, " .. n .. " bytes [truncated]", "IPC"
  end
  local raw = tvb(off, 16):raw()
  local type = cstring(raw)
  local ti = tree:add(f.ipc_type, tvb(off, 16), type)
  if raw ~= type .. string.rep("\0", 16 - #type) then
    -- The receiver compares all 16 bytes: such a type matches none of its handlers.
    ti:add_proto_expert_info(e.odd, "bytes after the type name's end: no receiver takes it")
  end
  local r = record(tvb, tree, off, off + n)
  local line = "IPC " .. printable(type)
  if type == "ROUTENAT" then
    local a = r:has(16, 288) and tree:add(f.ipc_addr, r:range(16, 288)) or tree
    local ar = record(tvb, a, off + 16, off + n)
    for _, x in ipairs(ADDR_FIELDS) do
      if x[4] then
        ar:text(x[1], x[2], x[3], false)
      else
        ar:le(x[1], x[2], x[3])
      end
    end
    r.cut = r.cut or ar.cut
    local len = r:i32(304)
    r:le(f.route_len, 304, 4)
    if len then
      local avail = n - 308
      if len < 0 or len > avail then
        tree:add_proto_expert_info(e.truncated, "routed payload of " .. len .. " bytes, "
          .. math.max(avail, 0) .. " there")
        len = math.max(math.min(len, avail), 0)
      end
      if len > 0 then
        tree:add(f.payload, tvb(off + 308, len))
        if len >= 8 and tvb(off + 308, 8):raw() == "MELD    " then
          line = line .. ": " .. (dissect_meld(tvb, tree, off + 308, len))
        end
      end
    end
  elseif type == "PASSFD" then
    r:le(f.fd, 16, 4)
    r:le(f.agent_id, 20, 4)
    r:le(f.listener_id, 24, 4)
    local name = r:text(f.fd_name, 28, 128, false)
    local fd = r:i32(16)
    line = line .. " fd=" .. (fd and tostring(fd) or "?") .. " " .. quoted(name or "")
    tree:add_proto_expert_info(e.odd,
      "the descriptor itself travels as control data of a local connection, not in the frame")
  elseif type == "LOGGING" then
    r:le(f.log_msgnr, 16, 4)
    local text = r:text(f.log_insert, 20, 1024, false)
    local nr = r:i32(16)
    line = line .. " " .. (nr and tostring(nr) or "?") .. " " .. quoted(text or "")
  elseif type == "CHANNEL_ACCEPT" or type == "CHANNEL_CLOSE" then
    if type == "CHANNEL_ACCEPT" then
      r:le(f.channel_id, 16, 4)
    elseif n > 16 then
      tree:add(f.data, tvb(off + 16, n - 16))
    end
    tree:add_proto_expert_info(e.forged, type .. " is made only inside a process: "
      .. "on a connection it is forged")
  else
    if n > 16 then
      tree:add(f.data, tvb(off + 16, n - 16))
    end
    tree:add_proto_expert_info(e.odd, "unknown internal message type")
  end
  if r.cut then
    tree:add_proto_expert_info(e.truncated, type .. " record cut short: " .. n .. " bytes")
    line = line .. " [truncated]"
  end
  return line, "IPC " .. type
end

-- Shows [off, off + n) as the bytes of a frame the receiver rejected.
local function malformed(tvb, tree, off, n, expert_field, reason)
  local t = tree:add(qx7, tvb(off, n))
  t:set_text("QX7 malformed frame: " .. reason)
  t:add(f.data, tvb(off, n))
  t:add_proto_expert_info(expert_field, reason)
  return "malformed: " .. reason
end

-- The header's text fields; `n` bytes of the frame are there (at least 8).
local function add_header(tvb, t, off, n, length)
  local h = t:add(f.header, tvb(off, math.min(n, HEADER_SIZE)))
  if length then
    h:add(f.length, tvb(off, 8), length)
  else
    h:add(f.length_text, tvb(off, 8), printable(tvb(off, 8):raw()))
  end
  local parts = { { f.eyecatcher, 8, 10 }, { f.version, 18, 3 }, { f.protocol, 21, 3 },
    { f.coding, 24, 8 }, { f.session, 32, 16 } }
  for _, x in ipairs(parts) do
    if x[2] + x[3] <= n then
      h:add(x[1], tvb(off + x[2], x[3]), printable(tvb(off + x[2], x[3]):raw()))
    end
  end
  return h
end

-- One whole frame at [off, off + len); returns the Info line.
local function dissect_frame(tvb, pinfo, tree, off, len, stream)
  local t = tree:add(qx7, tvb(off, len))
  local h = add_header(tvb, t, off, len, len)
  local eye = tvb(off + 8, 10):raw()
  if eye ~= "QX7:global" then
    h:add_proto_expert_info(e.odd, "eye-catcher is not QX7:global (the receiver accepts it)")
  end
  local protocol = tvb(off + 21, 3):raw()
  local body, n = off + HEADER_SIZE, len - HEADER_SIZE
  local line, kind
  if protocol == "NAT" then
    local why
    line, why = dissect_keyed_body(tvb, pinfo, t, body, n, stream)
    if line == nil then
      line, kind = "malformed: " .. why, "malformed"
    else
      kind = why
    end
  elseif protocol == "IPC" then
    line, kind = dissect_ipc(tvb, t, body, n)
  elseif protocol == "GSS" then
    if n > 0 then
      t:add(f.gss_data, tvb(body, n))
    end
    line = "GSS coding=" .. quoted(rtrim(tvb(off + 24, 8):raw())) .. ", " .. n .. " bytes"
    kind = "GSS"
  else
    line = "malformed: unknown protocol " .. quoted(protocol)
    kind = "malformed"
    if n > 0 then
      t:add(f.data, tvb(body, n))
    end
    t:add_proto_expert_info(e.protocol, "unknown protocol " .. quoted(protocol))
  end
  t:add(f.message, tvb(off, len), kind):set_generated()
  t:append_text(": " .. line)
  return line
end

local function add_info(infos, line)
  infos[#infos + 1] = line
end

function qx7.dissector(tvb, pinfo, tree)
  local total = tvb:len()
  if total == 0 then
    return 0
  end
  local stream = stream_of(pinfo)
  local dir = direction_of(pinfo, stream)
  if not pinfo.visited then
    pending[dir] = nil
  end
  pinfo.cols.protocol:set("QX7")
  local infos = {}

  local stop = broken[dir]
  if stop ~= nil and pinfo.number > stop then
    local t = tree:add(qx7, tvb())
    t:set_text("QX7 data after the malformed frame of packet " .. stop)
    t:add(f.data, tvb())
    t:add_proto_expert_info(e.after, "the receiver closed the connection at the malformed frame "
      .. "of packet " .. stop .. " and reads no further")
    pinfo.cols.info:set("data after a malformed frame")
    return total
  end

  local off = 0
  while off < total do
    local avail = total - off
    if avail < 8 then
      if pinfo.can_desegment > 0 then
        pinfo.desegment_offset = off
        pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
        if not pinfo.visited then
          pending[dir] = { packet = pinfo.number }
        end
        break
      end
      add_info(infos, malformed(tvb, tree, off, avail, e.truncated,
        "frame cut short inside its length"))
      break
    end
    local digits = tvb(off, 8):raw()
    local length = digits:match("^%d%d%d%d%d%d%d%d$") and tonumber(digits) or nil
    local reason
    if length == nil then
      reason = "length " .. quoted(digits) .. " is not 8 digits"
    elseif length < HEADER_SIZE then
      reason = "length " .. length .. " lies inside the 48-byte header"
    elseif length > MAX_FRAME then
      reason = "length " .. length .. " exceeds the largest frame (" .. MAX_FRAME .. ")"
    end
    if reason then
      -- The receiver cannot find the next frame and closes the connection.
      local t = tree:add(qx7, tvb(off, avail))
      t:set_text("QX7 malformed frame: " .. reason)
      add_header(tvb, t, off, avail, nil)
      t:add(f.data, tvb(off, avail))
      t:add_proto_expert_info(e.length, reason)
      add_info(infos, "malformed: " .. reason)
      if not pinfo.visited and broken[dir] == nil then
        broken[dir] = pinfo.number
      end
      off = total
      break
    end
    if length > avail then
      if pinfo.can_desegment > 0 then
        pinfo.desegment_offset = off
        pinfo.desegment_len = length - avail
        if not pinfo.visited then
          pending[dir] = { packet = pinfo.number, length = length }
        end
        break
      end
      local t = tree:add(qx7, tvb(off, avail))
      t:set_text("QX7 frame of " .. length .. " bytes, " .. avail .. " captured")
      add_header(tvb, t, off, avail, length)
      t:add(f.data, tvb(off, avail))
      t:add_proto_expert_info(e.truncated, "frame length " .. length .. " points past the "
        .. avail .. " bytes there are")
      add_info(infos, "malformed: length " .. length .. " points past the data")
      off = total
      break
    end
    local ok, line = pcall(dissect_frame, tvb, pinfo, tree, off, length, stream)
    if not ok then
      tree:add(qx7, tvb(off, length)):add_proto_expert_info(e.fault, "dissector fault: "
        .. tostring(line))
      line = "dissector fault"
    end
    add_info(infos, line)
    off = off + length
  end
  if #infos > 0 then
    pinfo.cols.info:set(table.concat(infos, "; "))
  end
  return total
end

-- Frames on any port: a header's eye-catcher at its place. The connection is then handed to
-- this dissector as a whole, so that the segments in the middle of a frame reach it too.
local function heuristic(tvb, pinfo, tree)
  if not qx7.prefs.heuristic or tvb:len() < 18 or tvb(8, 10):raw() ~= "QX7:global" then
    return false
  end
  pinfo.conversation = qx7
  qx7.dissector(tvb, pinfo, tree)
  return true
end
qx7:register_heuristic("tcp", heuristic)

local registered_port = qx7.prefs.tcp_port
DissectorTable.get("tcp.port"):add(registered_port, qx7)

function qx7.prefs_changed()
  if qx7.prefs.tcp_port ~= registered_port then
    local ports = DissectorTable.get("tcp.port")
    if registered_port ~= 0 then
      ports:remove(registered_port, qx7)
    end
    registered_port = qx7.prefs.tcp_port
    if registered_port ~= 0 then
      ports:add(registered_port, qx7)
    end
  end
end

-- A connection that ends (FIN or reset) while a frame still waits for its rest: the frame
-- never arrives whole. Seen after every dissector, so also on a close without data.
local closing = Proto("qx7_close", "QX7 connection end check")

function closing.dissector(tvb, pinfo, tree)
  local cut = closed_inside[pinfo.number]
  if cut == nil and not pinfo.visited and next(pending) ~= nil then
    local fin, rst = tcp_fin(), tcp_rst()
    if (fin and fin.value) or (rst and rst.value) then
      local stream = stream_of(pinfo)
      local dir = direction_of(pinfo, stream)
      local keys = { dir }
      if rst and rst.value then
        -- A reset ends both directions.
        for k in pairs(pending) do
          if k:sub(1, #stream + 1) == stream .. ">" then
            keys[#keys + 1] = k
          end
        end
      end
      for _, k in ipairs(keys) do
        if pending[k] ~= nil then
          cut = pending[k]
          pending[k] = nil
        end
      end
      if cut then
        closed_inside[pinfo.number] = cut
      end
    end
  end
  if cut then
    local reason = "the connection ended inside the frame "
        .. (cut.length and "of " .. cut.length .. " bytes " or "")
        .. "that begins in packet " .. cut.packet
    local t = tree:add(qx7, tvb())
    t:set_text("QX7 " .. reason)
    t:add_proto_expert_info(e.closed, reason)
    pinfo.cols.protocol:set("QX7")
    pinfo.cols.info:append(" [malformed: " .. reason .. "]")
  end
end
register_postdissector(closing)
