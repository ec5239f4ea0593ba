-- Dissectors for the links of a Tessaro base unit: internal link, GLink, EGLink, UDP API and pairing.
--
-- Wireshark:  copy into the personal Lua plug-in folder, or start with  -X lua_script:tessaro.lua
-- tshark:     tshark -X lua_script:tools/wireshark/tessaro.lua -r capture.pcapng
--
-- Frames of the internal link are captured as link type USER0 (147): one byte of direction (0 towards the base
-- controller, 1 from it), then the bytes of the line from the start byte to the newline.

local GLINK_PORT = 1147
local EGLINK_PORTS = { 5825, 5827 }
local API_PORTS = { 6250, 6251 }
local PAIRING_PORT = 9123
local TRANSFER_PORT = 9124

-- ---------------------------------------------------------------------------------------------------------------------
-- CRC-32/MPEG-2, and a table to look values up with

local crc_table = {}
for index = 0, 255 do
    local value = bit32 and bit32.lshift(index, 24) or bit.lshift(index, 24)
    local shift, band, bxor = (bit32 or bit).lshift, (bit32 or bit).band, (bit32 or bit).bxor
    for _ = 1, 8 do
        if band(value, 0x80000000) ~= 0 then
            value = bxor(shift(value, 1), 0x04C11DB7)
        else
            value = shift(value, 1)
        end
    end
    crc_table[index] = value
end

-- True when the bytes, the last four of which are their CRC, leave a remainder of nothing.
local function crc_good(bytes)
    local ops = bit32 or bit
    local crc = 0xFFFFFFFF
    for i = 0, bytes:len() - 1 do
        local index = ops.band(ops.bxor(ops.rshift(crc, 24), bytes:get_index(i)), 0xFF)
        crc = ops.bxor(ops.lshift(crc, 8), crc_table[index])
    end
    return bytes:len() >= 4 and ops.band(crc, 0xFFFFFFFF) == 0
end

local function name_of(names, value)
    return names[value] or string.format("%d", value)
end

-- Shows a CRC with its verdict, and marks the packet when it is wrong.
local function add_crc(tree, field, status_field, expert, range, good)
    tree:add(field, range)
    tree:add(status_field, range, good):set_generated()
    if not good then
        tree:add_proto_expert_info(expert)
    end
end

-- Remembers requests by key, and for an answer tells the request's number and the time since then. Packets are dissected
-- more than once and out of order, so what the first pass found is kept by packet number.
local function new_matcher()
    local open, found = {}, {}
    local matcher = {}
    function matcher.request(key, pinfo)
        if not pinfo.visited then
            open[key] = { number = pinfo.number, time = pinfo.abs_ts }
        end
    end
    function matcher.answer(key, pinfo)
        local id = pinfo.number .. "/" .. key
        if not pinfo.visited and open[key] then
            found[id] = { number = open[key].number, seconds = pinfo.abs_ts - open[key].time }
            open[key] = nil
        end
        return found[id]
    end
    function matcher.reset()
        open, found = {}, {}
    end
    return matcher
end

local function add_match(tree, fields, match)
    if match then
        tree:add(fields.request, match.number):set_generated()
        tree:add(fields.response_time, match.seconds):set_generated()
    end
end

local function match_fields(prefix)
    return {
        request = ProtoField.framenum(prefix .. ".request_in", "Request in", base.NONE, frametype.REQUEST),
        response_time = ProtoField.double(prefix .. ".response_time", "Response time (s)"),
    }
end

local function collect(...)
    local all = {}
    for _, group in ipairs({ ... }) do
        for _, item in pairs(group) do
            all[#all + 1] = item
        end
    end
    return all
end

-- ---------------------------------------------------------------------------------------------------------------------
-- GLink

local glink = Proto("tessaro_glink", "Tessaro GLink")
local GLINK_HEADER, GLINK_CRC = 17, 4
local GLINK_IDS = {
    [0] = "HEARTBEAT", [1] = "INIT", [2] = "INITACK", [3] = "CMD", [4] = "PERIODIC DATA", [5] = "SERVICE FORWARD",
    [6] = "POWER OFF", [7] = "E STOP", [8] = "BASE STATUS", [9] = "FALLBACK DEINIT",
}
local GLINK_TYPES = { [0] = "MSG", [1] = "ACK" }
local ORIGINS = { [0] = "machine controller", [1] = "base controller" }
local gf = {
    size = ProtoField.uint16("tessaro_glink.size", "Payload size"),
    stream = ProtoField.uint8("tessaro_glink.stream", "Stream"),
    id = ProtoField.uint8("tessaro_glink.id", "Message", base.DEC, GLINK_IDS),
    type = ProtoField.uint8("tessaro_glink.type", "Type", base.DEC, GLINK_TYPES),
    time = ProtoField.uint32("tessaro_glink.time", "Sender's time (ms)"),
    header_crc = ProtoField.uint32("tessaro_glink.header_crc", "Header CRC", base.HEX),
    header_good = ProtoField.bool("tessaro_glink.header_crc.good", "Header CRC good"),
    crc = ProtoField.uint32("tessaro_glink.crc", "Message CRC", base.HEX),
    good = ProtoField.bool("tessaro_glink.crc.good", "Message CRC good"),
    payload = ProtoField.bytes("tessaro_glink.payload", "Payload"),
    version = ProtoField.string("tessaro_glink.version", "Version"),
    remote = ProtoField.uint16("tessaro_glink.remote_id", "Remote unit"),
    base = ProtoField.uint16("tessaro_glink.base_id", "Base unit"),
    checksum = ProtoField.bytes("tessaro_glink.checksum", "Application checksum"),
    error = ProtoField.uint16("tessaro_glink.error", "Error code"),
    text = ProtoField.stringz("tessaro_glink.error_text", "Error text"),
    origin = ProtoField.uint8("tessaro_glink.origin", "Origin", base.DEC, ORIGINS),
    bu_state = ProtoField.uint8("tessaro_glink.bu_state", "Base-unit state"),
    tsaps = ProtoField.uint8("tessaro_glink.tsaps", "TSAPs"),
    unarmed = ProtoField.uint8("tessaro_glink.unarmed_rus", "Unarmed units"),
    eglink = ProtoField.uint8("tessaro_glink.eglink_status", "Machine controller link"),
    eclink = ProtoField.uint8("tessaro_glink.eclink_status", "External controller link"),
    armed = ProtoField.uint16("tessaro_glink.armed_ru", "Armed unit"),
}
local gm = match_fields("tessaro_glink")
local glink_bad_crc = ProtoExpert.new("tessaro_glink.bad_crc", "Wrong CRC", expert.group.CHECKSUM, expert.severity.ERROR)
glink.fields = collect(gf, gm)
glink.experts = { glink_bad_crc }
local glink_matcher = new_matcher()

local glink_payloads = {
    [1] = function(tree, payload)
        if payload:len() < 22 then return "" end
        tree:add(gf.version, payload(0, 2), payload(0, 1):uint() .. "." .. payload(1, 1):uint())
        tree:add_le(gf.remote, payload(2, 2))
        tree:add_le(gf.base, payload(4, 2))
        tree:add(gf.checksum, payload(6, 16))
        return string.format(" unit %d base %d", payload(2, 2):le_uint(), payload(4, 2):le_uint())
    end,
    [2] = function(tree, payload)
        if payload:len() < 2 then return "" end
        tree:add_le(gf.error, payload(0, 2))
        if payload:len() > 2 then tree:add(gf.text, payload(2)) end
        return string.format(" code %d", payload(0, 2):le_uint())
    end,
    [4] = function(tree, payload)
        if payload:len() < 1 then return "" end
        tree:add(gf.origin, payload(0, 1))
        return ""
    end,
    [8] = function(tree, payload)
        if payload:len() < 9 then return "" end
        tree:add_le(gf.base, payload(0, 2))
        tree:add(gf.bu_state, payload(2, 1))
        tree:add(gf.tsaps, payload(3, 1))
        tree:add(gf.unarmed, payload(4, 1))
        tree:add(gf.eglink, payload(5, 1))
        tree:add(gf.eclink, payload(6, 1))
        tree:add_le(gf.armed, payload(7, 2))
        return string.format(" state %d armed %d", payload(2, 1):uint(), payload(7, 2):le_uint())
    end,
}

local function flow(pinfo, from_sender)
    local a, b = tostring(pinfo.src) .. ":" .. pinfo.src_port, tostring(pinfo.dst) .. ":" .. pinfo.dst_port
    return from_sender and (a .. ">" .. b) or (b .. ">" .. a)
end

-- One frame that lies whole in the buffer. Returns its summary.
local function dissect_glink_frame(buffer, pinfo, root)
    local id, kind, size = buffer(3, 1):uint(), buffer(4, 1):uint(), buffer:len() - GLINK_HEADER - GLINK_CRC
    local tree = root:add(glink, buffer(), "Tessaro GLink, " .. name_of(GLINK_IDS, id) .. " " .. name_of(GLINK_TYPES, kind))
    tree:add_le(gf.size, buffer(0, 2))
    tree:add(gf.stream, buffer(2, 1))
    tree:add(gf.id, buffer(3, 1))
    tree:add(gf.type, buffer(4, 1))
    tree:add_le(gf.time, buffer(5, 4))
    add_crc(tree, gf.header_crc, gf.header_good, glink_bad_crc, buffer(13, 4), crc_good(buffer(0, GLINK_HEADER):bytes()))
    local detail = ""
    if size > 0 then
        local payload = buffer(GLINK_HEADER, size)
        tree:add(gf.payload, payload)
        if kind == 0 and glink_payloads[id] then
            detail = glink_payloads[id](tree, payload)
        end
    end
    add_crc(tree, gf.crc, gf.good, glink_bad_crc, buffer(GLINK_HEADER + size, GLINK_CRC), crc_good(buffer:bytes()))
    if kind == 1 then
        add_match(tree, gm, glink_matcher.answer(flow(pinfo, false) .. "/" .. id, pinfo))
    elseif kind == 0 then
        glink_matcher.request(flow(pinfo, true) .. "/" .. id, pinfo)
    end
    return name_of(GLINK_IDS, id) .. (kind == 1 and " ACK" or "") .. detail
end

function glink.dissector(buffer, pinfo, root)
    pinfo.cols.protocol = "GLink"
    local offset, summaries = 0, {}
    while offset < buffer:len() do
        local left = buffer:len() - offset
        if left < GLINK_HEADER then
            pinfo.desegment_offset, pinfo.desegment_len = offset, DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        local whole = GLINK_HEADER + buffer(offset, 2):le_uint() + GLINK_CRC
        if left < whole then
            pinfo.desegment_offset, pinfo.desegment_len = offset, whole - left
            break
        end
        summaries[#summaries + 1] = dissect_glink_frame(buffer(offset, whole):tvb(), pinfo, root)
        offset = offset + whole
    end
    if #summaries > 0 then
        pinfo.cols.info = table.concat(summaries, ", ")
    end
    return buffer:len() -- what is kept for reassembly counts as taken: 0 would mean "not ours"
end

function glink.init() glink_matcher.reset() end
DissectorTable.get("tcp.port"):add(GLINK_PORT, glink)

-- ---------------------------------------------------------------------------------------------------------------------
-- Internal link

local link = Proto("tessaro_link", "Tessaro Internal Link")
local CLASSES = { [0] = "INVALID", [1] = "TRANSP_ACK", [2] = "SERVICE_ACK", [3] = "ACK" }
local SERVICES = {
    [100] = "system event", [101] = "process data", [102] = "configuration", [104] = "service forward",
    [105] = "fallback", [106] = "field-bus command", [107] = "field-bus periodic",
}
local EVENTS = { [0] = "RESET", [100] = "RECONFIG", [101] = "RELEASEARM", [102] = "ECLINKRESET", [103] = "EGRECONFIG" }
local DIRECTIONS = { [0] = "to base controller", [1] = "from base controller" }
local lf = {
    direction = ProtoField.uint8("tessaro_link.direction", "Direction", base.DEC, DIRECTIONS),
    class = ProtoField.uint8("tessaro_link.class", "Message class", base.DEC, CLASSES, 0xC0),
    number = ProtoField.uint8("tessaro_link.number", "Packet number", base.DEC, nil, 0x3F),
    service = ProtoField.uint8("tessaro_link.service", "Service", base.DEC, SERVICES),
    payload = ProtoField.bytes("tessaro_link.payload", "Payload"),
    event = ProtoField.uint8("tessaro_link.event", "Event", base.DEC, EVENTS),
    key = ProtoField.string("tessaro_link.key", "Key"),
    value = ProtoField.uint32("tessaro_link.value", "Value"),
    identity = ProtoField.uint16("tessaro_link.identity", "Identity"),
    total = ProtoField.uint8("tessaro_link.total_rus", "Remote units"),
    eglink = ProtoField.uint8("tessaro_link.eglink_status", "Machine controller link"),
    remote = ProtoField.uint16("tessaro_link.remote_id", "Remote unit"),
    remaining = ProtoField.uint16("tessaro_link.remaining", "Remaining length"),
    crc = ProtoField.uint32("tessaro_link.crc", "CRC", base.HEX),
    good = ProtoField.bool("tessaro_link.crc.good", "CRC good"),
}
local lm = match_fields("tessaro_link")
local link_bad_crc = ProtoExpert.new("tessaro_link.bad_crc", "Wrong CRC", expert.group.CHECKSUM, expert.severity.ERROR)
link.fields = collect(lf, lm)
link.experts = { link_bad_crc }
local link_matcher = new_matcher()

local function unstuffed(range)
    local raw, out, i = range:bytes(), {}, 0
    while i < raw:len() do
        local byte = raw:get_index(i)
        if byte == 0x90 then
            i = i + 1
            local escaped = i < raw:len() and raw:get_index(i) or 0
            out[#out + 1] = string.format("%02x", (escaped + 0x80) % 0x100)
        elseif byte ~= 0x82 and byte ~= 0x0A then
            out[#out + 1] = string.format("%02x", byte)
        end
        i = i + 1
    end
    return ByteArray.new(table.concat(out))
end

local link_payloads = {
    [100] = function(tree, payload)
        tree:add(lf.event, payload(0, 1))
        return " " .. name_of(EVENTS, payload(0, 1):uint())
    end,
    [101] = function(tree, payload, class, direction)
        if direction ~= 0 or payload:len() ~= 4 then return " image of " .. payload:len() .. " bytes" end
        tree:add_le(lf.identity, payload(0, 2))
        tree:add(lf.total, payload(2, 1))
        tree:add(lf.eglink, payload(3, 1))
        return string.format(" status: identity %d units %d", payload(0, 2):le_uint(), payload(2, 1):uint())
    end,
    [102] = function(tree, payload, class)
        if class == 3 and payload:len() == 4 then
            tree:add_le(lf.value, payload(0, 4))
            return string.format(" value %d", payload(0, 4):le_uint())
        end
        if payload:len() < 4 then return "" end
        tree:add(lf.key, payload(0, 4))
        if payload:len() == 6 then tree:add_le(lf.remote, payload(4, 2)) end
        return " key " .. payload(0, 4):string()
    end,
    [104] = function(tree, payload)
        if payload:len() < 2 then return "" end
        tree:add_le(lf.remote, payload(0, 2))
        return string.format(" unit %d", payload(0, 2):le_uint())
    end,
    [105] = function(tree, payload)
        if payload:len() == 1 then return payload(0, 1):uint() == 0 and " rejected" or " accepted" end
        tree:add_le(lf.remote, payload(0, 2))
        if payload:len() < 4 then return string.format(" go on, unit %d", payload(0, 2):le_uint()) end
        tree:add_le(lf.remaining, payload(2, 2))
        return string.format(" unit %d, %d of %d left", payload(0, 2):le_uint(), payload:len() - 4, payload(2, 2):le_uint())
    end,
}

function link.dissector(buffer, pinfo, root)
    pinfo.cols.protocol = "Internal link"
    local direction = buffer(0, 1):uint()
    local tree = root:add(link, buffer())
    tree:add(lf.direction, buffer(0, 1))
    local plain = buffer:len() > 1 and unstuffed(buffer(1)) or ByteArray.new()
    if plain:len() < 6 then
        pinfo.cols.info = string.format("fragment of %d bytes", buffer:len() - 1)
        return buffer:len()
    end
    local packet = plain:tvb("Unstuffed packet")
    local class, number, service = packet(0, 1):bitfield(0, 2), packet(0, 1):bitfield(2, 6), packet(1, 1):uint()
    tree:add(lf.class, packet(0, 1))
    tree:add(lf.number, packet(0, 1))
    tree:add(lf.service, packet(1, 1))
    local good, detail = crc_good(plain), ""
    if plain:len() > 6 then
        local payload = packet(2, plain:len() - 6)
        tree:add(lf.payload, payload)
        if good and link_payloads[service] then
            detail = link_payloads[service](tree, payload, class, direction)
        end
    end
    add_crc(tree, lf.crc, lf.good, link_bad_crc, packet(plain:len() - 4, 4), good)
    if good and class == 3 then
        add_match(tree, lm, link_matcher.answer((1 - direction) .. "/" .. number, pinfo))
    elseif good then
        link_matcher.request(direction .. "/" .. number, pinfo)
    end
    pinfo.cols.info = string.format("%s %s #%d %s%s%s", direction == 0 and "->" or "<-", name_of(CLASSES, class), number,
                                    name_of(SERVICES, service), detail, good and "" or " WRONG CRC")
    return buffer:len()
end

function link.init() link_matcher.reset() end
DissectorTable.get("wtap_encap"):add(wtap.USER0, link)

-- ---------------------------------------------------------------------------------------------------------------------
-- EGLink

local eglink = Proto("tessaro_eglink", "Tessaro EGLink")
local EG_HEADER, EG_CRC = 16, 4
local ef = {
    type = ProtoField.string("tessaro_eglink.type", "Type"),
    revision = ProtoField.uint16("tessaro_eglink.revision", "Revision"),
    origin = ProtoField.uint16("tessaro_eglink.origin", "Origin"),
    serial = ProtoField.uint16("tessaro_eglink.serial", "Serial"),
    size = ProtoField.uint16("tessaro_eglink.size", "Payload size"),
    index = ProtoField.uint8("tessaro_eglink.index", "Sub-packet"),
    command = ProtoField.uint16("tessaro_eglink.command_id", "Command id"),
    data = ProtoField.bytes("tessaro_eglink.data", "Data"),
    crc = ProtoField.uint32("tessaro_eglink.crc", "CRC", base.HEX),
    good = ProtoField.bool("tessaro_eglink.crc.good", "CRC good"),
}
local em = match_fields("tessaro_eglink")
local eg_bad_crc = ProtoExpert.new("tessaro_eglink.bad_crc", "Wrong CRC", expert.group.CHECKSUM, expert.severity.ERROR)
local eg_bad_size = ProtoExpert.new("tessaro_eglink.bad_size", "Size field does not fit", expert.group.MALFORMED,
                                    expert.severity.ERROR)
eglink.fields = collect(ef, em)
eglink.experts = { eg_bad_crc, eg_bad_size }
local eg_matcher = new_matcher()
-- Which type answers which.
local EG_ANSWERS = { VRAO = "VRCI", VRAI = "VRCO" }

local function add_eg_payload(tree, kind, payload, pinfo)
    if kind == "VRPO" and payload:len() >= 1 then
        tree:add(ef.index, payload(0, 1))
        if payload:len() > 1 then tree:add(ef.data, payload(1)) end
        return string.format(" [%d]", payload(0, 1):uint())
    end
    if kind == "VRPI" or payload:len() < 2 then
        if payload:len() > 0 then tree:add(ef.data, payload) end
        return ""
    end
    local id = payload(0, 2):le_uint()
    tree:add_le(ef.command, payload(0, 2))
    if payload:len() > 6 then tree:add(ef.data, payload(6)) end
    if EG_ANSWERS[kind] then
        add_match(tree, em, eg_matcher.answer(EG_ANSWERS[kind] .. id, pinfo))
    else
        eg_matcher.request(kind .. id, pinfo)
    end
    return " id " .. id
end

function eglink.dissector(buffer, pinfo, root)
    if buffer:len() < EG_HEADER + EG_CRC then return 0 end
    pinfo.cols.protocol = "EGLink"
    local kind, length = buffer(0, 4):string(), buffer:len() - EG_HEADER - EG_CRC
    local tree = root:add(eglink, buffer(), "Tessaro EGLink, " .. kind)
    tree:add(ef.type, buffer(0, 4))
    tree:add_le(ef.revision, buffer(4, 2))
    tree:add_le(ef.origin, buffer(6, 2))
    tree:add_le(ef.serial, buffer(8, 2))
    tree:add_le(ef.size, buffer(10, 2))
    if buffer(10, 2):le_uint() ~= length then
        tree:add_proto_expert_info(eg_bad_size)
    end
    local detail = ""
    if length > 0 then
        detail = add_eg_payload(tree, kind, buffer(EG_HEADER, length), pinfo)
    end
    add_crc(tree, ef.crc, ef.good, eg_bad_crc, buffer(EG_HEADER + length, EG_CRC), crc_good(buffer:bytes()))
    pinfo.cols.info = string.format("%s%s serial %d origin %d", kind, detail, buffer(8, 2):le_uint(), buffer(6, 2):le_uint())
    return buffer:len()
end

function eglink.init() eg_matcher.reset() end
for _, port in ipairs(EGLINK_PORTS) do
    DissectorTable.get("udp.port"):add(port, eglink)
end

-- ---------------------------------------------------------------------------------------------------------------------
-- UDP API

local api = Proto("tessaro_api", "Tessaro UDP API")
local af = {
    request = ProtoField.string("tessaro_api.request", "Request"),
    action = ProtoField.string("tessaro_api.action", "Action"),
    answer = ProtoField.string("tessaro_api.answer", "Answer"),
}
local am = match_fields("tessaro_api")
api.fields = collect(af, am)
local api_matcher = new_matcher()
local API_ACTIONS = { "GET", "RESET", "DISARM", "CCHANGE" }

local function api_action(text)
    for _, word in ipairs(API_ACTIONS) do
        if text:find(word, 1, true) then return word end
    end
    return "default"
end

function api.dissector(buffer, pinfo, root)
    pinfo.cols.protocol = "Tessaro API"
    local tree = root:add(api, buffer())
    local text = buffer:len() > 0 and buffer():raw() or ""
    if pinfo.dst_port == API_PORTS[1] then
        local action = api_action(text)
        if buffer:len() > 0 then tree:add(af.request, buffer()) end
        tree:add(af.action, action):set_generated()
        api_matcher.request("api", pinfo)
        pinfo.cols.info = "request " .. action
    else
        if buffer:len() > 0 then tree:add(af.answer, buffer()) end
        add_match(tree, am, api_matcher.answer("api", pinfo))
        pinfo.cols.info = text == "NOTIFY" and "NOTIFY" or "status, " .. buffer:len() .. " bytes"
    end
    return buffer:len()
end

function api.init() api_matcher.reset() end
for _, port in ipairs(API_PORTS) do
    DissectorTable.get("udp.port"):add(port, api)
end

-- ---------------------------------------------------------------------------------------------------------------------
-- Pairing: blocks of a QDataStream; texts are a length in bytes (big-endian) and UTF-16 in the same order

local pairing = Proto("tessaro_pairing", "Tessaro Pairing")
local pf = {
    command = ProtoField.string("tessaro_pairing.command", "Command"),
    remote = ProtoField.uint16("tessaro_pairing.remote_id", "Remote unit"),
    path = ProtoField.string("tessaro_pairing.path", "Application"),
    name = ProtoField.string("tessaro_pairing.name", "Archive"),
    size = ProtoField.uint64("tessaro_pairing.size", "Size"),
    digest = ProtoField.string("tessaro_pairing.md5", "MD5"),
    entry = ProtoField.string("tessaro_pairing.entry", "Entry"),
}
local pm = match_fields("tessaro_pairing")
pairing.fields = collect(pf, pm)
local pairing_matcher = new_matcher()
local LONGEST_TEXT = 65536
local NULL_TEXT = 0xFFFFFFFF

-- A reader that knows when bytes are missing.
local function new_reader(buffer, offset)
    local reader = { offset = offset, short = false }
    function reader.take(count)
        if reader.short or reader.offset + count > buffer:len() then
            reader.short = true
            return nil
        end
        local range = buffer(reader.offset, count)
        reader.offset = reader.offset + count
        return range
    end
    function reader.text()
        local length = reader.take(4)
        if not length then return nil, nil end
        if length:uint() == NULL_TEXT or length:uint() == 0 then return "", length end
        if length:uint() > LONGEST_TEXT then
            reader.short = true
            return nil, nil
        end
        local range = reader.take(length:uint())
        return range and range:ustring(), range
    end
    return reader
end

local function add_text(tree, field, reader)
    local text, range = reader.text()
    if text then tree:add(field, range, text) end
    return text or ""
end

local pairing_bodies = {
    getApp = function(tree, reader)
        local remote = reader.take(2)
        if not remote then return "" end
        tree:add(pf.remote, remote)
        return string.format(" unit %d %s", remote:uint(), add_text(tree, pf.path, reader))
    end,
    app = function(tree, reader)
        local name = add_text(tree, pf.name, reader)
        local size = reader.take(8)
        if size then tree:add(pf.size, size) end
        add_text(tree, pf.digest, reader)
        return " " .. name
    end,
    appList = function(tree, reader)
        local records = reader.take(4)
        if not records then return "" end
        for number = 1, math.min(records:uint(), 1000) do
            local pairs_count = reader.take(4)
            for _ = 1, pairs_count and math.min(pairs_count:uint(), 1000) or 0 do
                local key = reader.text()
                local value, range = reader.text()
                if value then tree:add(pf.entry, range, number .. ": " .. (key or "") .. " = " .. value) end
            end
        end
        return string.format(" of %d", records:uint())
    end,
}

function pairing.dissector(buffer, pinfo, root)
    pinfo.cols.protocol = "Pairing"
    local offset, summaries = 0, {}
    local from_tool = pinfo.dst_port == PAIRING_PORT
    while offset < buffer:len() do
        local reader = new_reader(buffer, offset)
        local tree = root:add(pairing, buffer(offset))
        local command = add_text(tree, pf.command, reader)
        local detail = pairing_bodies[command] and pairing_bodies[command](tree, reader) or ""
        if reader.short then
            pinfo.desegment_offset, pinfo.desegment_len = offset, DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        if from_tool then
            pairing_matcher.request(flow(pinfo, true), pinfo)
        else
            add_match(tree, pm, pairing_matcher.answer(flow(pinfo, false), pinfo))
        end
        summaries[#summaries + 1] = command .. detail
        offset = reader.offset
    end
    if #summaries > 0 then
        pinfo.cols.info = table.concat(summaries, ", ")
    end
    return buffer:len() -- what is kept for reassembly counts as taken: 0 would mean "not ours"
end

function pairing.init() pairing_matcher.reset() end
DissectorTable.get("tcp.port"):add(PAIRING_PORT, pairing)

local transfer = Proto("tessaro_transfer", "Tessaro Application Transfer")
transfer.fields = { ProtoField.bytes("tessaro_transfer.data", "Archive data") }
function transfer.dissector(buffer, pinfo, root)
    pinfo.cols.protocol = "Transfer"
    pinfo.cols.info = string.format("%d bytes of an archive", buffer:len())
    root:add(transfer, buffer()):add(transfer.fields[1], buffer())
    return buffer:len()
end
DissectorTable.get("tcp.port"):add(TRANSFER_PORT, transfer)
