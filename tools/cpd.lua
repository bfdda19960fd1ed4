-- Shows captures of `cpd-host --record FILE` in Wireshark: every field of every packet, which answer
-- belongs to which request, and how long it took. docs/protocol.md describes the packets.
--
--   wireshark -X lua_script:PATH/cpd.lua FILE
--   tshark -X lua_script:PATH/cpd.lua -r FILE
--
-- Or link this file into Wireshark's folder for personal Lua plug-ins. Display filters look like
-- `cpd.cmd == 105`, `cpd.path contains "film"`, `cpd.file_read.size > 65536`, `cpd.time > 0.1`.

local cpd = Proto("cpd", "Disk redirection")

local HEADER = 16
local TO_MODULE, FROM_MODULE = 1, 2 -- the directions

-- ---- What the packets look like ----

-- The fields of a head: name, type, and for the type "record" its own fields.
local STAT = {
  { "st_dev", "s64" }, { "st_ino", "u64" }, { "st_nlink", "u64" }, { "st_size", "s64" },
  { "st_rdev", "s64" }, { "st_blocks", "s64" }, { "st_blksize", "s64" },
  { "st_atim", "time" }, { "st_mtim", "time" }, { "st_ctim", "time" },
  { "st_mode", "oct32" }, { "st_uid", "u32" }, { "st_gid", "u32" }, { "st_reserved", "u32" },
}
local STATVFS = {
  { "f_bsize", "u64" }, { "f_frsize", "u64" }, { "f_blocks", "u64" }, { "f_bfree", "u64" },
  { "f_bavail", "u64" }, { "f_files", "u64" }, { "f_ffree", "u64" }, { "f_favail", "u64" },
  { "f_fsid", "u64" }, { "f_flag", "u64" }, { "f_namemax", "u64" }, { "f_spare", "bytes24" },
}
local ENTRY = { { "attributes", "record", STAT }, { "name_len", "u16" } }
local READ = {
  { "offset", "s64" }, { "unread_8", "u32" }, { "size", "u32" }, { "path_length", "u32" },
  { "unread_20", "u32" },
}
local PIECE = { { "offset", "s64" }, { "length", "s32" } }
local DIR = {
  { "echoed", "bytes8" }, { "buf_len", "u32" }, { "path_length", "u16" }, { "entry_count", "u16" },
}
local CLOSE = { { "path_length", "u32" }, { "fd", "u32" } }
local REMOVE = { { "path_length", "u16" }, { "result", "s16" } }
local TWO_PATHS = { { "result", "s32" }, { "path_length", "u16" }, { "new_path_length", "u16" } }
local NAME = { { "name_length", "u16" } }

-- What follows a head, in order: kind, and the field with its length. The kinds:
--   path, name, drive, label, new_path   a text
--   data                                 bytes of a file
--   pieces                               bytes of a file, or the pieces of a batch
--   listing, stat                        records
--   statvfs                              records up to the end
--   files, files_data                    heads of 123, without and with data
--   flag                                 the two bytes that end an announcement
local PATH = { { "path", "path_length" } }
local PATHS = { { "path", "path_length" }, { "new_path", "new_path_length" } }

-- Of each command: its name, its head, what follows in a request, and in an answer.
local COMMANDS = {
  [100] = { "mount_remote", NAME, { { "name", "name_length" } },
            { { "name", "name_length" }, { "flag" } } },
  [101] = { "umount_remote", NAME, { { "name", "name_length" } }, { { "name", "name_length" } } },
  [102] = { "get_file_attr", { { "path_length", "u16" }, { "attr_length", "u16" } }, PATH,
            { { "path", "path_length" }, { "stat", "attr_length" } } },
  [103] = { "file_create", { { "path_length", "u32" }, { "flags", "u32" }, { "mode", "oct32" },
                             { "result", "s32" } }, PATH, PATH },
  [104] = { "file_open", {}, {}, {} },
  [105] = { "file_read", READ, PATH, { { "path", "path_length" }, { "data", "size" } } },
  [106] = { "file_write", { { "offset", "s64" }, { "size", "s32" }, { "unread_12", "u32" },
                            { "single", "u32" }, { "path_length", "u16" }, { "marker_a", "u8" },
                            { "marker_b", "u8" } },
            { { "path", "path_length" }, { "pieces", "size" } }, PATH },
  [107] = { "dir_read", DIR, PATH, { { "path", "path_length" }, { "listing", "buf_len" } } },
  [108] = { "get_xattr", { { "result", "s64" }, { "value_length", "s32" }, { "path_length", "u16" },
                           { "name_length", "u16" } },
            { { "path", "path_length" }, { "name", "name_length" } },
            { { "name", "name_length" } } },
  [109] = { "file_truncate", { { "length", "u64" }, { "path_length", "u32" }, { "result", "s32" } },
            PATH, PATH },
  [110] = { "file_fsync", { { "path_length", "u32" }, { "unread_4", "u32" }, { "result", "s32" } },
            PATH, PATH },
  [111] = { "file_chmod", { { "result", "s32" }, { "path_length", "u16" }, { "mode", "oct16" } },
            PATH, PATH },
  [112] = { "file_chown", { { "path_length", "u32" }, { "uid", "u32" }, { "gid", "u32" },
                            { "result", "s32" } }, PATH, PATH },
  [113] = { "get_statvfs", { { "path_length", "u32" }, { "record_length", "u32" } }, PATH,
            { { "path", "path_length" }, { "statvfs" } } },
  [114] = { "make_dir", { { "result", "s32" }, { "path_length", "u16" }, { "mode", "oct16" } },
            PATH, PATH },
  [115] = { "remove_dir", REMOVE, PATH, PATH },
  [116] = { "set_link", TWO_PATHS, PATHS, PATHS },
  [117] = { "set_unlink", REMOVE, PATH, PATH },
  [118] = { "set_rename", TWO_PATHS, PATHS, PATHS },
  [119] = { "file_flush", CLOSE, PATH, PATH },
  [120] = { "file_release", CLOSE, PATH, PATH },
  [121] = { "check_dir", DIR, { { "path", "path_length" }, { "listing", "buf_len" } },
            { { "path", "path_length" }, { "listing", "buf_len" } } },
  [122] = { "small_file_notice", {}, {}, {} },
  [123] = { "small_file_read", { { "count", "u32" } }, { { "files" } }, { { "files_data" } } },
  [200] = { "mount_response", { { "label_length", "u16" }, { "drive_length", "u16" } },
            { { "drive", "drive_length" }, { "label", "label_length" } }, {} },
}

-- ---- Wireshark's fields ----

local fields = {} -- by filter name

local MAKERS = {
  u8 = function(filter, name) return ProtoField.uint8(filter, name) end,
  u16 = function(filter, name) return ProtoField.uint16(filter, name) end,
  u32 = function(filter, name) return ProtoField.uint32(filter, name) end,
  u64 = function(filter, name) return ProtoField.uint64(filter, name) end,
  s16 = function(filter, name) return ProtoField.int16(filter, name) end,
  s32 = function(filter, name) return ProtoField.int32(filter, name) end,
  s64 = function(filter, name) return ProtoField.int64(filter, name) end,
  oct16 = function(filter, name) return ProtoField.uint16(filter, name, base.OCT) end,
  oct32 = function(filter, name) return ProtoField.uint32(filter, name, base.OCT) end,
  bytes = function(filter, name) return ProtoField.bytes(filter, name) end,
  bytes8 = function(filter, name) return ProtoField.bytes(filter, name) end,
  bytes24 = function(filter, name) return ProtoField.bytes(filter, name) end,
  time = function(filter, name) return ProtoField.absolute_time(filter, name, base.LOCAL) end,
  text = function(filter, name) return ProtoField.string(filter, name, base.UNICODE) end,
}
local WIDTHS = {
  u8 = 1, u16 = 2, u32 = 4, u64 = 8, s16 = 2, s32 = 4, s64 = 8, oct16 = 2, oct32 = 4,
  bytes8 = 8, bytes24 = 24, time = 16,
}

local function add_field(filter, name, kind)
  if fields[filter] == nil then fields[filter] = MAKERS[kind](filter, name) end
end

local function add_head(prefix, head)
  for _, field in ipairs(head) do
    local name, kind, record = field[1], field[2], field[3]
    if kind == "record" then
      add_head(prefix, record)
    else
      add_field(prefix .. "." .. name, name, kind)
    end
  end
end

local names = {}
for code, command in pairs(COMMANDS) do
  names[code] = command[1]
  add_head("cpd." .. command[1], command[2])
end
add_head("cpd.small_file_read", READ)
add_head("cpd.piece", PIECE)
add_head("cpd.entry", ENTRY)
add_head("cpd.statvfs", STATVFS)
add_head("cpd.stat", STAT)
for _, text in ipairs({ "path", "new_path", "name", "drive", "label" }) do
  add_field("cpd." .. text, text, "text")
end
add_field("cpd.data", "data", "bytes")
add_field("cpd.entry.name", "name", "text")
add_field("cpd.read_only", "read-only", "u8")

fields.magic = ProtoField.uint8("cpd.magic", "magic", base.HEX)
fields.dev_id = ProtoField.uint8("cpd.dev_id", "devId")
fields.cmd = ProtoField.uint16("cpd.cmd", "cmd", base.DEC, names)
fields.request_id = ProtoField.uint32("cpd.request_id", "requestId")
fields.length = ProtoField.uint32("cpd.length", "packetLen")
fields.big_endian = ProtoField.uint8("cpd.big_endian", "bigEndian")
fields.reserved = ProtoField.bytes("cpd.reserved", "reserved")
fields.answer_in = ProtoField.framenum("cpd.answer_in", "answer in", base.NONE, frametype.RESPONSE)
fields.answer_to = ProtoField.framenum("cpd.answer_to", "answer to", base.NONE, frametype.REQUEST)
fields.time = ProtoField.relative_time("cpd.time", "time since the request")
fields.direction = ProtoField.uint8("cpd.direction", "direction", base.DEC,
                                    { [TO_MODULE] = "to the module", [FROM_MODULE] = "from the module" })

cpd.fields = fields

local malformed = ProtoExpert.new("cpd.malformed", "a length reaches past the packet's end",
                                  expert.group.MALFORMED, expert.severity.ERROR)
local cut = ProtoExpert.new("cpd.cut", "the rest was not recorded, or exceeds what Wireshark shows",
                            expert.group.COMMENTS_GROUP, expert.severity.COMMENT)
local excess = ProtoExpert.new("cpd.excess", "bytes that no field accounts for",
                               expert.group.PROTOCOL, expert.severity.NOTE)
local unknown = ProtoExpert.new("cpd.unknown", "an unknown command",
                                expert.group.UNDECODED, expert.severity.WARN)
cpd.experts = { malformed, cut, excess, unknown }

-- ---- Which answer belongs to which request ----

local waiting, answer_of, request_of

function cpd.init()
  waiting = {}    -- the last request of each command and id
  answer_of = {}  -- number of the answer's frame, by that of the request's
  request_of = {} -- number and time of the request's frame, by that of the answer's
end

local function link(pinfo, way, cmd, id)
  local key = cmd .. ":" .. id
  if way == TO_MODULE then
    waiting[key] = { number = pinfo.number, time = pinfo.rel_ts }
    return
  end
  local request = waiting[key]
  if request ~= nil then
    answer_of[request.number] = pinfo.number
    request_of[pinfo.number] = request
    waiting[key] = nil
  elseif cmd == 100 then
    waiting = {} -- an announcement: the disk was opened anew, and ids begin again
  end
end

-- ---- A packet ----

-- Reads a packet from its beginning. What it lacks because of a cut is not read; what it should have,
-- but has not, is malformed.
local Reader = {}
Reader.__index = Reader

function Reader.new(buffer, original, tree)
  return setmetatable({ buffer = buffer, at = 0, stop = false, original = original, tree = tree },
                      Reader)
end

-- The next `length` bytes, or as many as there are; nil if there are none.
function Reader:take(length, tree)
  if self.stop or length <= 0 then return nil end
  local there = math.min(length, self.buffer:len() - self.at)
  if there < length then
    self.stop = true
    if self.at + length > self.original then
      tree:add_proto_expert_info(malformed)
    else
      tree:add_proto_expert_info(cut)
    end
  end
  if there <= 0 then return nil end
  local range = self.buffer(self.at, there)
  self.at = self.at + there
  return range
end

-- Shows a head's fields. @return their values by name; nil if one of them is missing
function Reader:head(prefix, head, tree)
  local values = {}
  for _, field in ipairs(head) do
    local name, kind, record = field[1], field[2], field[3]
    if kind == "record" then
      local part = self:head(prefix, record, tree)
      if part == nil then return nil end
      values[name] = part
    else
      local width = WIDTHS[kind]
      local range = self:take(width, tree)
      if range == nil or range:len() < width then return nil end
      local filter = fields[prefix .. "." .. name]
      if kind == "time" then
        local time = NSTime(range(0, 8):le_int64():tonumber(), range(8, 8):le_int64():tonumber())
        tree:add(filter, range, time)
        values[name] = time
      elseif kind == "s64" then
        tree:add_le(filter, range)
        values[name] = range:le_int64():tonumber()
      elseif kind == "u64" then
        tree:add_le(filter, range)
        values[name] = range:le_uint64():tonumber()
      elseif kind == "s16" or kind == "s32" then
        tree:add_le(filter, range)
        values[name] = range:le_int()
      elseif kind:sub(1, 5) == "bytes" then
        tree:add(filter, range)
      else
        tree:add_le(filter, range)
        values[name] = range:le_uint()
      end
    end
  end
  return values
end

function Reader:text(filter, length, tree)
  local range = self:take(length, tree)
  if range == nil then return "" end
  tree:add(fields[filter], range)
  return range:string()
end

function Reader:data(length, tree)
  local range = self:take(length, tree)
  if range ~= nil then tree:add(fields["cpd.data"], range):append_text(" (" .. length .. " bytes)") end
end

function Reader:listing(length, tree)
  local finish = self.at + length
  local listing = tree:add(cpd, self.buffer(self.at, 0), "listing, " .. length .. " bytes")
  local entries = 0
  -- One spare byte ends it.
  while not self.stop and finish - self.at > 1 do
    local begin = self.at
    local entry = listing:add(cpd, self.buffer(begin, 0), "entry")
    local head = self:head("cpd.entry", ENTRY, entry)
    if head == nil then return end
    local name = self:text("cpd.entry.name", head.name_len, entry)
    entry:set_text("entry " .. name .. ", " .. head.attributes.st_size .. " bytes")
    entry:set_len(self.at - begin)
    entries = entries + 1
  end
  self:take(finish - self.at, listing)
  listing:append_text(", " .. entries .. " entries")
end

-- The data of a write request: that of one write if `single` is set, otherwise pieces.
function Reader:pieces(length, single, tree)
  if single ~= 0 then return self:data(length, tree) end
  local finish = self.at + length
  while not self.stop and finish - self.at > 12 do
    local piece = tree:add(cpd, self.buffer(self.at, 0), "piece")
    local head = self:head("cpd.piece", PIECE, piece)
    if head == nil then return end
    piece:append_text(" at " .. head.offset .. ", " .. head.length .. " bytes")
    self:data(math.min(head.length, finish - self.at), piece)
  end
  self:data(finish - self.at, tree)
end

function Reader:files(count, has_data, tree)
  local first = ""
  for number = 1, count do
    if self.stop then break end
    local file = tree:add(cpd, self.buffer(self.at, 0), "file " .. number)
    local head = self:head("cpd.small_file_read", READ, file)
    if head == nil then break end
    local path = self:text("cpd.path", head.path_length, file)
    file:append_text(": " .. path)
    if has_data then self:data(head.size, file) end
    if number == 1 then first = path end
  end
  return first
end

-- Shows what follows a head. @return texts for the summary
function Reader:rest(parts, head, tree)
  local shown = {}
  for _, part in ipairs(parts) do
    local kind, length = part[1], part[2] and head[part[2]]
    if kind == "data" then
      self:data(length, tree)
    elseif kind == "pieces" then
      self:pieces(length, head.single, tree)
    elseif kind == "listing" then
      if length > 0 and not self.stop then self:listing(length, tree) end
    elseif kind == "stat" then
      if length > 0 then self:head("cpd.stat", STAT, tree:add(cpd, self.buffer(self.at, 0), "attributes")) end
    elseif kind == "statvfs" then
      while not self.stop and self.at < self.original do
        local record = tree:add(cpd, self.buffer(self.at, 0), "statistics")
        if self:head("cpd.statvfs", STATVFS, record) == nil then break end
      end
    elseif kind == "files" or kind == "files_data" then
      shown[#shown + 1] = self:files(head.count, kind == "files_data", tree)
    elseif kind == "flag" then
      -- An announcement has them; the answer to a 100 has not.
      if self.at < self.original then
        self:take(1, tree)
        local flag = self:take(1, tree)
        if flag ~= nil then tree:add(fields["cpd.read_only"], flag) end
      end
    else
      shown[#shown + 1] = self:text("cpd." .. kind, length, tree)
    end
  end
  return shown
end

-- The fields of a head that the summary shows.
local SHOWN = { "result", "offset", "size", "length", "attr_length", "entry_count", "count" }

function cpd.dissector(buffer, pinfo, root)
  if buffer:len() < HEADER then return 0 end
  local way = pinfo.p2p_dir == P2P_DIR_SENT and FROM_MODULE or TO_MODULE
  local cmd, id = buffer(2, 2):le_uint(), buffer(4, 4):le_uint()
  local original = buffer(8, 4):le_uint()
  if not pinfo.visited then link(pinfo, way, cmd, id) end

  local command = COMMANDS[cmd]
  local title = command and command[1] or ("command " .. cmd)
  pinfo.cols.protocol = "CPD"
  pinfo.cols.src = way == TO_MODULE and "remote side" or "module"
  pinfo.cols.dst = way == TO_MODULE and "module" or "remote side"
  local tree = root:add(cpd, buffer(), "Disk redirection, " .. title)
  tree:add(fields.direction, way):set_generated()

  local header = tree:add(cpd, buffer(0, HEADER), "header")
  header:add(fields.magic, buffer(0, 1))
  header:add(fields.dev_id, buffer(1, 1))
  header:add_le(fields.cmd, buffer(2, 2))
  header:add_le(fields.request_id, buffer(4, 4))
  header:add_le(fields.length, buffer(8, 4))
  header:add(fields.big_endian, buffer(12, 1))
  header:add(fields.reserved, buffer(13, 3))

  local info = { title }
  local reader = Reader.new(buffer, original, tree)
  reader.at = HEADER
  if command == nil then
    tree:add_proto_expert_info(unknown)
  else
    local body = tree:add(cpd, buffer(HEADER), title)
    local head = reader:head("cpd." .. title, command[2], body)
    if head ~= nil then
      for _, text in ipairs(reader:rest(command[way == TO_MODULE and 3 or 4], head, body)) do
        info[#info + 1] = text
      end
      for _, name in ipairs(SHOWN) do
        if head[name] ~= nil then info[#info + 1] = string.format("%s=%d", name, head[name]) end
      end
      if not reader.stop and reader.at < original then tree:add_proto_expert_info(excess) end
    end
  end

  local number = pinfo.number
  if answer_of[number] ~= nil then
    tree:add(fields.answer_in, answer_of[number]):set_generated()
  end
  local request = request_of[number]
  if request ~= nil then
    tree:add(fields.answer_to, request.number):set_generated()
    local seconds = pinfo.rel_ts - request.time
    tree:add(fields.time, NSTime(math.floor(seconds), math.floor(seconds % 1 * 1e9 + 0.5)))
        :set_generated()
    info[#info + 1] = "(answer)"
  end
  pinfo.cols.info = table.concat(info, " ")
  return buffer:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, cpd)
