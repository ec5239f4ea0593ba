-- Dissectors for the links of a Tessaro base unit: internal link, GLink, EGLink, UDP API and pairing.
--
-- Wireshark:  copy into the personal Lua plug-in folder, or start with  -X lua_script:tessaro.lua
-- tshark:     tshark -X lua_script:tools/wireshark/tessaro.lua -r capture.pcapng
--
-- Frames of the internal link are captured as link type USER0 (147): one byte of direction (0 towards the base
-- controller, 1 from it), then the bytes of the line from the start byte to the newline. README.md beside this file tells
-- how to get captures, and what to filter for.

local GLINK_PORT = 1147
local EGLINK_PORTS = { 5825, 5827 }
local API_PORTS = { 6250, 6251 }
local PAIRING_PORT = 9123
local TRANSFER_PORT = 9124

local BU_STATES = {
    [0] = "INITIAL", [1] = "STOPPED", [2] = "EXTERNAL_LINK_ERROR", [3] = "BLOCKED", [4] = "FAILED",
    [16] = "DISARMED", [17] = "ARMED",
}
local LINK_STATES = {
    [0] = "NOT_CONFIGURED", [1] = "OPERATIONAL", [2] = "NO_LINK", [3] = "LINK_ERROR", [4] = "INTERFACE_ERROR",
    [5] = "DATA_ERROR", [6] = "PASSIVE",
}

-- ---------------------------------------------------------------------------------------------------------------------
-- CRC-32/MPEG-2

local ops = bit32 or bit
local crc_table = {}
for index = 0, 255 do
    local value = ops.lshift(index, 24)
    for _ = 1, 8 do
        if ops.band(value, 0x80000000) ~= 0 then
            value = ops.bxor(ops.lshift(value, 1), 0x04C11DB7)
        else
            value = ops.lshift(value, 1)
        end
    end
    crc_table[index] = value
end

-- True when the bytes (a string), the last four of which are their CRC, leave a remainder of nothing.
local function crc_good(bytes)
    local crc = 0xFFFFFFFF
    for i = 1, #bytes do
        crc = ops.bxor(ops.lshift(crc, 8), crc_table[ops.band(ops.bxor(ops.rshift(crc, 24), bytes:byte(i)), 0xFF)])
    end
    return #bytes >= 4 and ops.band(crc, 0xFFFFFFFF) == 0
end

-- ---------------------------------------------------------------------------------------------------------------------
-- Words

local TOLD_BYTES = 8

local function name_of(names, value)
    return names[value] or string.format("%d", value)
end

-- Bytes (a string) in a few words: their text where they are one, filled up with zeros or not, else the first of them.
local function in_words(bytes)
    local text = bytes:match("^([\32-\126]+)\0*$")
    if text then
        return string.format(' "%s"', text)
    end
    local told = bytes:sub(1, TOLD_BYTES):gsub(".", function(byte) return string.format("%02x ", byte:byte()) end)
    return string.format(" %s%s(%d bytes)", told, #bytes > TOLD_BYTES and "... " or "", #bytes)
end

-- The bytes of a range from an offset on, as a string; none where it ends before.
local function rest_of(range, offset)
    return range:len() > offset and range:raw(offset) or ""
end

-- Fills the columns, with one text for all that a packet carries, also where TCP hands it over in several pieces.
local shown = { number = -1, text = "" }
local function show(pinfo, protocol, text)
    pinfo.cols.protocol = protocol
    if pinfo.number == shown.number and tostring(pinfo.cols.info) == shown.text then
        pinfo.cols.info:append(", " .. text)
        text = shown.text .. ", " .. text
    else
        pinfo.cols.info = text
    end
    shown.number, shown.text = pinfo.number, text
end

-- ---------------------------------------------------------------------------------------------------------------------
-- What belongs together. Packets are dissected in order once and later in any order, so what the first pass found is kept.

-- Finds the request of an answer: those of one key wait in a queue. A request may repeat the newest one of its key
-- (`again`) or take the place of all (`alone`); `place` tells several in one packet apart, `note` is given back with the
-- answer. What has waited for more than `patience` seconds is forgotten.
local function new_matcher(patience)
    local open, found, answered = {}, {}, {}
    local matcher = {}
    local function id_of(key, pinfo, place)
        return string.format("%d/%s/%d", pinfo.number, key, place or 0)
    end
    local function queue_of(key, now)
        local queue = open[key] or {}
        open[key] = queue
        while patience and queue[1] and now - queue[1].time > patience do
            table.remove(queue, 1)
        end
        return queue
    end
    -- Gives the number of the packet with the answer, once that is known.
    function matcher.request(key, pinfo, request)
        local id = id_of(key, pinfo, request.place)
        if not pinfo.visited then
            local queue = queue_of(key, pinfo.abs_ts)
            if request.alone then
                queue = {}
                open[key] = queue
            end
            if not request.again or #queue == 0 then
                queue[#queue + 1] = { id = id, number = pinfo.number, time = pinfo.abs_ts, note = request.note }
            end
        end
        return answered[id]
    end
    -- Gives the request's number, the seconds since then and its note; nil when none was waiting.
    function matcher.answer(key, pinfo, place)
        local id = id_of(key, pinfo, place)
        local request = not pinfo.visited and table.remove(queue_of(key, pinfo.abs_ts), 1)
        if request then
            local microseconds = math.floor((pinfo.abs_ts - request.time) * 1e6 + 0.5)
            found[id] = { number = request.number, seconds = microseconds / 1e6, note = request.note }
            answered[request.id] = pinfo.number
        end
        return found[id]
    end
    -- Nobody waits any more for answers to requests whose key begins so.
    function matcher.forget(prefix)
        for key in pairs(open) do
            if key:sub(1, #prefix) == prefix then open[key] = nil end
        end
    end
    function matcher.reset()
        open, found, answered = {}, {}, {}
    end
    return matcher
end

-- One value for each packet, worked out in the first pass from what came before; `memory.state` holds that.
local function new_memory()
    local values = {}
    local memory = { state = {} }
    function memory.once(pinfo, work_out)
        if not pinfo.visited then values[pinfo.number] = work_out(memory.state) end
        return values[pinfo.number]
    end
    function memory.reset()
        values, memory.state = {}, {}
    end
    return memory
end

-- A protocol with the fields and remarks that all have, beside its own `fields`.
local function new_protocol(name, title, fields, patience)
    local made = { proto = Proto(name, title), fields = fields, matcher = new_matcher(patience), memory = new_memory() }
    made.match = {
        request = ProtoField.framenum(name .. ".request_in", "Request in", base.NONE, frametype.REQUEST),
        response = ProtoField.framenum(name .. ".response_in", "Answer in", base.NONE, frametype.RESPONSE),
        response_time = ProtoField.double(name .. ".response_time", "Response time (s)"),
        repeats = ProtoField.framenum(name .. ".repeats", "Repeats", base.NONE, frametype.RETRANS_PREV),
    }
    made.remarks = {
        bad_crc = ProtoExpert.new(name .. ".bad_crc", "Wrong CRC", expert.group.CHECKSUM, expert.severity.ERROR),
        malformed = ProtoExpert.new(name .. ".malformed", "Not to be understood", expert.group.PROTOCOL,
                                    expert.severity.ERROR),
        again = ProtoExpert.new(name .. ".again", "The same once more", expert.group.SEQUENCE, expert.severity.NOTE),
        unasked = ProtoExpert.new(name .. ".unasked", "Answers nothing that waits for an answer", expert.group.SEQUENCE,
                                  expert.severity.WARN),
    }
    local all, experts = {}, {}
    for _, field in pairs(fields) do all[#all + 1] = field end
    for _, field in pairs(made.match) do all[#all + 1] = field end
    for _, remark in pairs(made.remarks) do experts[#experts + 1] = remark end
    made.proto.fields, made.proto.experts = all, experts
    function made.proto.init()
        made.matcher.reset()
        made.memory.reset()
    end
    return made
end

-- What comes on these ports (or with this link type) is given to `dissect`, which returns its summary, or nil for what has
-- not arrived as a whole. Copies inside of error messages of the network are left alone.
local function register(protocol, told, dissectors, patterns, dissect)
    function protocol.proto.dissector(buffer, pinfo, root)
        if pinfo.in_error_pkt then return 0 end
        local summary = dissect(buffer, pinfo, root)
        if summary then show(pinfo, told, summary) end
        return buffer:len() -- what is kept for reassembly counts as taken: 0 would mean "not ours"
    end
    for _, pattern in ipairs(patterns) do
        DissectorTable.get(dissectors):add(pattern, protocol.proto)
    end
end

-- Cuts a stream into what `take(offset)` gives: the summary of a message and its end, or nil and how many bytes it needs.
local function dissect_stream(buffer, pinfo, take)
    local offset, summaries = 0, {}
    while offset < buffer:len() do
        local summary, value = take(offset)
        if not summary then
            pinfo.desegment_offset, pinfo.desegment_len = offset, value or DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        summaries[#summaries + 1], offset = summary, value
    end
    return #summaries > 0 and table.concat(summaries, ", ") or nil
end

local function add_remark(tree, protocol, name, text)
    local remark = protocol.remarks[name]
    if text then tree:add_proto_expert_info(remark, text) else tree:add_proto_expert_info(remark) end
end

-- Shows a CRC with its verdict, and marks the packet when it is wrong.
local function add_crc(tree, protocol, field, verdict, range, good)
    tree:add(field, range)
    tree:add(verdict, range, good):set_generated()
    if not good then
        add_remark(tree, protocol, "bad_crc")
    end
end

local function add_request(tree, protocol, key, pinfo, request)
    local response = protocol.matcher.request(key, pinfo, request or {})
    if response then tree:add(protocol.match.response, response):set_generated() end
end

-- Adds what is known of the request, and gives its note. Of an answer that nobody waits for `unasked` says so.
local function add_answer(tree, protocol, key, pinfo, place)
    local found = protocol.matcher.answer(key, pinfo, place)
    if not found then
        add_remark(tree, protocol, "unasked")
        return nil
    end
    tree:add(protocol.match.request, found.number):set_generated()
    tree:add(protocol.match.response_time, found.seconds):set_generated()
    return found.note
end

-- Marks a packet that repeats an earlier one.
local function add_repeats(tree, protocol, number)
    if number then
        tree:add(protocol.match.repeats, number):set_generated()
        add_remark(tree, protocol, "again")
    end
end

-- ---------------------------------------------------------------------------------------------------------------------
-- GLink, over TCP or in blocks of the internal link

local GLINK_HEADER, GLINK_CRC = 17, 4
local INIT = 1
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
    unit = ProtoField.uint16("tessaro_glink.unit", "Unit at the other end"),
    remote = ProtoField.uint16("tessaro_glink.remote_id", "Remote unit"),
    base = ProtoField.uint16("tessaro_glink.base_id", "Base unit"),
    checksum = ProtoField.bytes("tessaro_glink.checksum", "Application checksum"),
    error = ProtoField.uint16("tessaro_glink.error", "Error code"),
    text = ProtoField.stringz("tessaro_glink.error_text", "Error text"),
    origin = ProtoField.uint8("tessaro_glink.origin", "Origin", base.DEC, ORIGINS),
    bu_state = ProtoField.uint8("tessaro_glink.bu_state", "Base-unit state", base.DEC, BU_STATES),
    tsaps = ProtoField.uint8("tessaro_glink.tsaps", "TSAPs"),
    unarmed = ProtoField.uint8("tessaro_glink.unarmed_rus", "Unarmed units"),
    eglink = ProtoField.uint8("tessaro_glink.eglink_status", "Machine controller link", base.DEC, LINK_STATES),
    eclink = ProtoField.uint8("tessaro_glink.eclink_status", "External controller link"),
    armed = ProtoField.uint16("tessaro_glink.armed_ru", "Armed unit"),
}
-- An acknowledgement that has not come after 4 s does not come any more: the connection ends.
local glink = new_protocol("tessaro_glink", "Tessaro GLink", gf, 10)

-- By message id: adds the fields of a payload, and gives a text for the column "Info".
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
        local code, text = payload(0, 2):le_uint(), rest_of(payload, 2):match("^[^\0]*")
        if text ~= "" then tree:add(gf.text, payload(2)) end
        return code == 0 and " accepted" or string.format(" code %d: %s", code, text)
    end,
    [4] = function(tree, payload, path)
        if not path.from_base then return in_words(payload:raw()) end
        tree:add(gf.origin, payload(0, 1))
        return string.format(" of the %s%s", name_of(ORIGINS, payload(0, 1):uint()), in_words(rest_of(payload, 1)))
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
        local armed = payload(7, 2):le_uint()
        return " " .. name_of(BU_STATES, payload(2, 1):uint()) .. (armed > 0 and " by unit " .. armed or "")
    end,
}
for _, id in ipairs({ 3, 5, 6, 7 }) do
    glink_payloads[id] = function(_, payload) return in_words(payload:raw()) end
end

-- A path has two directions, named by who sends: `forth` is the one of this frame. Which unit is at the other end, the
-- last INIT on the path told.
local function tcp_path(pinfo)
    local a, b = tostring(pinfo.src) .. ":" .. pinfo.src_port, tostring(pinfo.dst) .. ":" .. pinfo.dst_port
    return { forth = a .. ">" .. b, back = b .. ">" .. a, from_base = pinfo.src_port == GLINK_PORT }
end

local function add_unit(tree, path, id, payload)
    local units = glink.memory.state
    if id == INIT and payload and payload:len() >= 4 and not path.from_base then
        units[path.forth], units[path.back] = payload(2, 2):le_uint(), payload(2, 2):le_uint()
    end
    local unit = path.unit or units[path.forth]
    if unit then tree:add(gf.unit, unit):set_generated() end
end

local function match_glink(tree, pinfo, path, id, kind, place)
    if kind == 1 then
        add_answer(tree, glink, path.back .. "/" .. id, pinfo, place)
    elseif kind == 0 then
        if id == INIT and not pinfo.visited then -- the exchange begins anew
            glink.matcher.forget(path.forth)
            glink.matcher.forget(path.back)
        end
        add_request(tree, glink, path.forth .. "/" .. id, pinfo, { place = place })
    end
end

-- One frame that lies whole in the buffer. Returns its summary.
local function dissect_glink_frame(buffer, pinfo, root, path)
    local id, kind, size = buffer(3, 1):uint(), buffer(4, 1):uint(), buffer:len() - GLINK_HEADER - GLINK_CRC
    local tree = root:add(glink.proto, buffer(), "Tessaro GLink, " .. name_of(GLINK_IDS, id) .. " " .. name_of(GLINK_TYPES, kind))
    tree:add_le(gf.size, buffer(0, 2))
    tree:add(gf.stream, buffer(2, 1))
    tree:add(gf.id, buffer(3, 1))
    tree:add(gf.type, buffer(4, 1))
    tree:add_le(gf.time, buffer(5, 4))
    add_crc(tree, glink, gf.header_crc, gf.header_good, buffer(13, 4), crc_good(buffer:raw(0, GLINK_HEADER)))
    local detail, good, payload = "", crc_good(buffer:raw()), size > 0 and buffer(GLINK_HEADER, size) or nil
    if payload then
        tree:add(gf.payload, payload)
        if kind == 0 and good and glink_payloads[id] then
            detail = glink_payloads[id](tree, payload, path)
        end
    end
    add_crc(tree, glink, gf.crc, gf.good, buffer(GLINK_HEADER + size, GLINK_CRC), good)
    if good then
        add_unit(tree, path, id, payload)
        match_glink(tree, pinfo, path, id, kind, buffer:offset())
    end
    return name_of(GLINK_IDS, id) .. (kind == 1 and " ACK" or "") .. detail .. (good and "" or " WRONG CRC")
end

-- Bytes that are no frame, or of which nobody can tell where it ends: the base unit ends the connection.
local function dissect_glink_rest(buffer, root)
    local tree = root:add(glink.proto, buffer, "Tessaro GLink, no frame")
    tree:add(gf.payload, buffer)
    add_remark(tree, glink, "bad_crc", "No frame begins here: wrong header CRC")
    return string.format("%d bytes of no frame, WRONG CRC", buffer:len())
end

register(glink, "GLink", "tcp.port", { GLINK_PORT }, function(buffer, pinfo, root)
    local path = tcp_path(pinfo)
    return dissect_stream(buffer, pinfo, function(offset)
        local left = buffer:len() - offset
        if left < GLINK_HEADER then return nil end
        local whole = GLINK_HEADER + buffer(offset, 2):le_uint() + GLINK_CRC
        if left >= whole then
            return dissect_glink_frame(buffer(offset, whole):tvb(), pinfo, root, path), offset + whole
        end
        if crc_good(buffer:raw(offset, GLINK_HEADER)) then return nil, whole - left end
        return dissect_glink_rest(buffer(offset), root), buffer:len()
    end)
end)

-- ---------------------------------------------------------------------------------------------------------------------
-- Internal link

local START, END, ESCAPE = 0x82, 0x0A, 0x90
local LONGEST_READ = 512
local CLASS_INVALID, CLASS_ACK = 0, 3
local CLASSES = { [0] = "INVALID", [1] = "TRANSP_ACK", [2] = "SERVICE_ACK", [3] = "ACK" }
local FALLBACK = 105
local SERVICES = {
    [100] = "system event", [101] = "process data", [102] = "configuration", [104] = "service forward",
    [105] = "fallback", [106] = "field-bus command", [107] = "field-bus periodic",
}
local EVENTS = { [0] = "RESET", [100] = "RECONFIG", [101] = "RELEASEARM", [102] = "ECLINKRESET", [103] = "EGRECONFIG" }
local DIRECTIONS = { [0] = "to base controller", [1] = "from base controller" }
local PEERS = { [0] = { "base unit", "base controller" }, [1] = { "base controller", "base unit" } }
local VERDICTS = { [0] = "rejected", [1] = "accepted" }
local NO_VALUE = 0xFFFFFFFF
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
    eglink = ProtoField.uint8("tessaro_link.eglink_status", "Machine controller link", base.DEC, LINK_STATES),
    remote = ProtoField.uint16("tessaro_link.remote_id", "Remote unit"),
    remaining = ProtoField.uint16("tessaro_link.remaining", "Remaining length"),
    verdict = ProtoField.uint8("tessaro_link.verdict", "Verdict", base.DEC, VERDICTS),
    crc = ProtoField.uint32("tessaro_link.crc", "CRC", base.HEX),
    good = ProtoField.bool("tessaro_link.crc.good", "CRC good"),
}
-- Whoever has sent three times waits no longer; 50 ms lie between, and more where the other side is patient.
local link = new_protocol("tessaro_link", "Tessaro Internal Link", lf, 5)

-- The body of a line: a lone escape at its end counts as one before a zero.
local function unstuffed(line)
    local out, i = {}, 1
    while i <= #line do
        local byte = line:byte(i)
        if byte == ESCAPE then
            i = i + 1
            out[#out + 1] = string.char(((line:byte(i) or 0) + 0x80) % 0x100)
        elseif byte ~= START and byte ~= END then
            out[#out + 1] = string.char(byte)
        end
        i = i + 1
    end
    return table.concat(out)
end

-- Puts the blocks of a fallback message together. Gives its bytes with the last one, nil before.
local function reassemble(partial, key, remaining, data)
    local message = partial[key]
    if not message or message.to_come ~= remaining then
        message = { data = "" } -- the one before was abandoned
    end
    message.data, message.to_come = message.data .. data, remaining - #data
    partial[key] = message.to_come > 0 and message or nil
    return message.to_come <= 0 and message.data or nil
end

-- A setting: four characters, or a number with a sign. There is one value for "no such setting".
local function setting_in_words(payload)
    local value = payload:le_uint()
    if value == NO_VALUE then return "none" end
    return payload:raw():match("^[\32-\126]+$") and in_words(payload:raw()):sub(2) or tostring(payload:le_int())
end

local function dissect_fallback_message(bytes, pinfo, root, unit, direction)
    local forth, back = unit .. "/" .. direction, unit .. "/" .. (1 - direction)
    local path = { forth = "fallback" .. forth, back = "fallback" .. back, from_base = direction == 0, unit = unit }
    local buffer = ByteArray.new(bytes, true):tvb("GLink message")
    if buffer:len() < GLINK_HEADER + GLINK_CRC then
        return dissect_glink_rest(buffer(), root)
    end
    return dissect_glink_frame(buffer, pinfo, root, path)
end

-- By service: adds the fields of a payload that is not empty, and gives a text for the column "Info". `packet` is what
-- else is known: direction, class, whether it repeats another, the note of its request, where to put nested messages.
local link_payloads = {
    [100] = function(tree, payload)
        tree:add(lf.event, payload(0, 1))
        return " " .. name_of(EVENTS, payload(0, 1):uint())
    end,
    [101] = function(tree, payload, packet)
        if packet.direction ~= 0 or payload:len() ~= 4 then return " image of " .. payload:len() .. " bytes" end
        tree:add_le(lf.identity, payload(0, 2))
        tree:add(lf.total, payload(2, 1))
        tree:add(lf.eglink, payload(3, 1))
        return string.format(" status: identity %d units %d machine controller %s", payload(0, 2):le_uint(),
                             payload(2, 1):uint(), name_of(LINK_STATES, payload(3, 1):uint()))
    end,
    [102] = function(tree, payload, packet)
        if packet.class == CLASS_ACK and payload:len() == 4 then
            tree:add_le(lf.value, payload(0, 4))
            return string.format(" %s = %s", packet.note or "value", setting_in_words(payload))
        end
        if payload:len() < 4 then return "" end
        tree:add(lf.key, payload(0, 4))
        if payload:len() ~= 6 then return " key " .. payload(0, 4):string() end
        tree:add_le(lf.remote, payload(4, 2))
        return string.format(" key %s of unit %d", payload(0, 4):string(), payload(4, 2):le_uint())
    end,
    [104] = function(tree, payload)
        if payload:len() < 2 then return "" end
        tree:add_le(lf.remote, payload(0, 2))
        return string.format(" unit %d%s", payload(0, 2):le_uint(), in_words(rest_of(payload, 2)))
    end,
    [105] = function(tree, payload, packet)
        if payload:len() == 1 then
            tree:add(lf.verdict, payload(0, 1))
            return " " .. name_of(VERDICTS, payload(0, 1):uint())
        end
        tree:add_le(lf.remote, payload(0, 2))
        local unit = payload(0, 2):le_uint()
        if payload:len() < 4 then return string.format(" go on, unit %d", unit) end
        tree:add_le(lf.remaining, payload(2, 2))
        local remaining, size = payload(2, 2):le_uint(), payload:len() - 4
        local whole = packet.reassembled(unit .. "/" .. packet.direction, remaining, rest_of(payload, 4))
        if not whole then return string.format(" unit %d, %d of %d bytes", unit, size, remaining) end
        return string.format(" unit %d%s: %s", unit, size < #whole and ", last " .. size .. " bytes" or "",
                             dissect_fallback_message(whole, packet.pinfo, packet.root, unit, packet.direction))
    end,
    [106] = function(_, payload) return in_words(payload:raw()) end,
    [107] = function(_, payload) return in_words(payload:raw()) end,
}

-- What the packets before say about this one: the number of the one that it repeats, and a fallback message that it ends.
local function remembered(pinfo, direction, line, class)
    return link.memory.once(pinfo, function(state)
        local last, value = state[direction], {}
        if class ~= CLASS_ACK then
            value.repeats = last and last.line == line and last.number or nil
            state[direction] = { line = line, number = value.repeats or pinfo.number }
        end
        function value.reassembled(key, remaining, data)
            state.partial = state.partial or {}
            value.whole = not value.repeats and reassemble(state.partial, key, remaining, data) or nil
            value.reassembled = function() return value.whole end
            return value.whole
        end
        return value
    end)
end

local function match_link(tree, pinfo, packet, number, service)
    local key = number .. "/" .. service
    if packet.class == CLASS_ACK then
        return add_answer(tree, link, (1 - packet.direction) .. "/" .. key, pinfo)
    end
    add_request(tree, link, packet.direction .. "/" .. key, pinfo,
                { again = packet.repeats, alone = not packet.repeats, note = packet.asked })
    add_repeats(tree, link, packet.repeats)
    return nil
end

-- A packet whose CRC is right. Returns its summary.
local function dissect_link_packet(tree, plain, pinfo, root, direction, line)
    local class, number, service = plain(0, 1):bitfield(0, 2), plain(0, 1):bitfield(2, 6), plain(1, 1):uint()
    local memory, payload = remembered(pinfo, direction, line, class), plain:len() > 6 and plain(2, plain:len() - 6)
    local packet = { class = class, direction = direction, pinfo = pinfo, root = root, repeats = memory.repeats,
                     reassembled = memory.reassembled }
    packet.asked = service == 102 and class == 2 and payload and payload:len() >= 4 and payload(0, 4):string() or nil
    packet.note = match_link(tree, pinfo, packet, number, service)
    if class == CLASS_INVALID then
        add_remark(tree, link, "malformed", "Class 0: the base unit ends itself")
    end
    local detail = payload and link_payloads[service] and link_payloads[service](tree, payload, packet) or ""
    return detail .. (memory.repeats and " (again)" or "")
end

local function dissect_line(tree, buffer, pinfo, root, direction)
    local line = buffer:raw(1)
    local body = unstuffed(line)
    if #line > LONGEST_READ then
        add_remark(tree, link, "malformed", "The base unit reads this line in pieces of 512 bytes")
    end
    if #body < 6 then
        add_remark(tree, link, "malformed", "Too short for a packet")
        return string.format("fragment of %d bytes", #line)
    end
    local plain, good = ByteArray.new(body, true):tvb("Unstuffed packet"), crc_good(body)
    tree:add(lf.class, plain(0, 1))
    tree:add(lf.number, plain(0, 1))
    tree:add(lf.service, plain(1, 1))
    if plain:len() > 6 then tree:add(lf.payload, plain(2, plain:len() - 6)) end
    local detail = good and dissect_link_packet(tree, plain, pinfo, root, direction, line) or " WRONG CRC"
    add_crc(tree, link, lf.crc, lf.good, plain(plain:len() - 4, 4), good)
    return string.format("%s %s #%d %s%s", direction == 0 and "->" or "<-", name_of(CLASSES, plain(0, 1):bitfield(0, 2)),
                         plain(0, 1):bitfield(2, 6), name_of(SERVICES, plain(1, 1):uint()), detail)
end

register(link, "Internal link", "wtap_encap", { wtap.USER0 }, function(buffer, pinfo, root)
    local direction = buffer(0, 1):uint()
    local tree = root:add(link.proto, buffer())
    tree:add(lf.direction, buffer(0, 1))
    if PEERS[direction] then
        pinfo.cols.src, pinfo.cols.dst = PEERS[direction][1], PEERS[direction][2]
    end
    return buffer:len() > 1 and dissect_line(tree, buffer, pinfo, root, direction) or "nothing"
end)

-- ---------------------------------------------------------------------------------------------------------------------
-- EGLink

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
-- A command is repeated for 2 s.
local eglink = new_protocol("tessaro_eglink", "Tessaro EGLink", ef, 5)
local EG_TYPES = { VRPI = true, VRPO = true, VRCI = true, VRCO = true, VRAI = true, VRAO = true }
local EG_ANSWERS = { VRAO = "VRCI", VRAI = "VRCO" } -- which type answers which

-- The number of the packet that this one repeats: of the same type, sender and serial, and part of a set.
local function eg_repeats(pinfo, kind, buffer, part)
    return eglink.memory.once(pinfo, function(state)
        local key, serial = kind .. buffer(6, 2):le_uint(), buffer(8, 2):le_uint()
        if not state[key] or state[key].serial ~= serial then
            state[key] = { serial = serial, parts = {} }
        end
        local first = state[key].parts[part]
        state[key].parts[part] = first or pinfo.number
        return first
    end)
end

local function add_eg_payload(tree, kind, payload)
    if kind == "VRPO" then
        tree:add(ef.index, payload(0, 1))
        if payload:len() > 1 then tree:add(ef.data, payload(1)) end
        return string.format(" [%d]", payload(0, 1):uint()), rest_of(payload, 1)
    end
    if kind == "VRPI" or payload:len() < 2 then
        tree:add(ef.data, payload)
        return "", payload:raw()
    end
    tree:add_le(ef.command, payload(0, 2))
    if payload:len() > 6 then tree:add(ef.data, payload(6)) end
    return " id " .. payload(0, 2):le_uint(), rest_of(payload, 6)
end

local function match_eglink(tree, pinfo, kind, buffer)
    local payload = buffer:len() - EG_HEADER - EG_CRC
    local repeats = eg_repeats(pinfo, kind, buffer, kind == "VRPO" and payload > 0 and buffer(EG_HEADER, 1):uint() or 0)
    if EG_ANSWERS[kind] and payload >= 2 then
        add_answer(tree, eglink, EG_ANSWERS[kind] .. buffer(EG_HEADER, 2):le_uint(), pinfo)
    elseif (kind == "VRCI" or kind == "VRCO") and payload >= 2 then
        add_request(tree, eglink, kind .. buffer(EG_HEADER, 2):le_uint(), pinfo, { again = repeats, alone = not repeats })
    end
    add_repeats(tree, eglink, repeats)
    return repeats and " (again)" or ""
end

local function dissect_eg_packet(tree, buffer, pinfo, kind)
    local length, detail, data = buffer:len() - EG_HEADER - EG_CRC, "", ""
    tree:add(ef.type, buffer(0, 4))
    tree:add_le(ef.revision, buffer(4, 2))
    tree:add_le(ef.origin, buffer(6, 2))
    tree:add_le(ef.serial, buffer(8, 2))
    tree:add_le(ef.size, buffer(10, 2))
    if length > 0 then
        detail, data = add_eg_payload(tree, kind, buffer(EG_HEADER, length))
    end
    local good = crc_good(buffer:raw())
    add_crc(tree, eglink, ef.crc, ef.good, buffer(EG_HEADER + length, EG_CRC), good)
    if good and not EG_TYPES[kind] then add_remark(tree, eglink, "malformed", "Unknown type") end
    if good and buffer(10, 2):le_uint() ~= length then
        add_remark(tree, eglink, "malformed", "Size field does not fit")
    end
    return string.format("%s%s serial %d origin %d%s%s", kind, detail, buffer(8, 2):le_uint(), buffer(6, 2):le_uint(),
                         data ~= "" and in_words(data) or "", good and match_eglink(tree, pinfo, kind, buffer) or " WRONG CRC")
end

register(eglink, "EGLink", "udp.port", EGLINK_PORTS, function(buffer, pinfo, root)
    if buffer:len() < EG_HEADER + EG_CRC then
        add_remark(root:add(eglink.proto, buffer()), eglink, "malformed", "Too short for a packet")
        return string.format("fragment of %d bytes", buffer:len())
    end
    local kind = in_words(buffer:raw(0, 4)):match('^ "(.*)"$') or "unknown"
    local tree = root:add(eglink.proto, buffer(), "Tessaro EGLink, " .. kind)
    return dissect_eg_packet(tree, buffer, pinfo, kind)
end)

-- ---------------------------------------------------------------------------------------------------------------------
-- UDP API

local af = {
    request = ProtoField.string("tessaro_api.request", "Request"),
    action = ProtoField.string("tessaro_api.action", "Action"),
    answer = ProtoField.string("tessaro_api.answer", "Answer"),
    member = ProtoField.string("tessaro_api.member", "Member"),
    pushed = ProtoField.bool("tessaro_api.pushed", "Sent unasked"),
}
local api = new_protocol("tessaro_api", "Tessaro UDP API", af, 2)
local API_ACTIONS = { "GET", "RESET", "DISARM", "CCHANGE" } -- the first one that is found anywhere counts
local NOTIFY, STATUS = "NOTIFY", "status"

local function api_action(text)
    for _, word in ipairs(API_ACTIONS) do
        if text:find(word, 1, true) then return word end
    end
    return "default"
end

-- The members of a status object that differ from those of the one before, in words.
local function api_changes(pinfo, text)
    return api.memory.once(pinfo, function(known)
        local changes = {}
        for key, value in text:gmatch('"([^"]*)":"([^"]*)"') do
            local name = key == "BU_STATE" and BU_STATES[tonumber(value)] or value
            if known[key] ~= value then changes[#changes + 1] = key .. "=" .. name end
            known[key] = value
        end
        return #changes > 0 and table.concat(changes, " ") or "unchanged"
    end)
end

-- Answers carry nothing of their request: a status object belongs to the oldest question, if there is one.
local function dissect_api_answer(tree, buffer, pinfo, text)
    if text ~= "" then tree:add(af.answer, buffer()) end
    local kind = text == NOTIFY and NOTIFY or STATUS
    local found = api.matcher.answer(kind, pinfo)
    if found then
        tree:add(api.match.request, found.number):set_generated()
        tree:add(api.match.response_time, found.seconds):set_generated()
    end
    if kind == NOTIFY then return NOTIFY end
    for key, value in text:gmatch('"([^"]*)":"([^"]*)"') do
        tree:add(af.member, key .. " = " .. value):set_generated()
    end
    tree:add(af.pushed, not found):set_generated()
    return STATUS .. (found and " " or " push ") .. api_changes(pinfo, text)
end

register(api, "Tessaro API", "udp.port", API_PORTS, function(buffer, pinfo, root)
    local tree, text = root:add(api.proto, buffer()), buffer:len() > 0 and buffer:raw() or ""
    if pinfo.dst_port ~= API_PORTS[1] then
        return dissect_api_answer(tree, buffer, pinfo, text)
    end
    local action = api_action(text)
    if text ~= "" then tree:add(af.request, buffer()) end
    tree:add(af.action, action):set_generated()
    add_request(tree, api, (action == "GET" or action == "default") and STATUS or NOTIFY, pinfo)
    return "request " .. action
end)

-- ---------------------------------------------------------------------------------------------------------------------
-- Pairing: blocks of a QDataStream; texts are a length in bytes (big-endian) and UTF-16 in the same order

local pf = {
    command = ProtoField.string("tessaro_pairing.command", "Command"),
    remote = ProtoField.uint16("tessaro_pairing.remote_id", "Remote unit"),
    path = ProtoField.string("tessaro_pairing.path", "Application"),
    name = ProtoField.string("tessaro_pairing.name", "Archive"),
    size = ProtoField.uint64("tessaro_pairing.size", "Size"),
    digest = ProtoField.string("tessaro_pairing.md5", "MD5"),
    entry = ProtoField.string("tessaro_pairing.entry", "Entry"),
}
local pairing = new_protocol("tessaro_pairing", "Tessaro Pairing", pf)
local PAIRING_ANSWERS = { appList = "getAppList", app = "getApp" } -- other requests have none on this connection
local LONGEST_TEXT = 1048576
local NULL_TEXT = 0xFFFFFFFF

-- Reads a message from its front and keeps what it found as { field, range, text }, so that nothing is shown of one that
-- has not arrived as a whole. It is `short` when bytes are missing, and `bad` when these bytes are no message.
local function new_reader(buffer, offset)
    local reader = { offset = offset, short = false, bad = false, items = {} }
    function reader.take(count)
        if reader.bad or reader.short or reader.offset + count > buffer:len() then
            reader.short = true
            return nil
        end
        local range = buffer(reader.offset, count)
        reader.offset = reader.offset + count
        return range
    end
    function reader.number(count, field)
        local range = reader.take(count)
        if range and field then reader.items[#reader.items + 1] = { field, range } end
        return range and (count == 8 and range:uint64():tonumber() or range:uint()) or 0
    end
    function reader.text(field)
        local length = reader.number(4)
        if length == NULL_TEXT or length == 0 then return "" end
        if length > LONGEST_TEXT or length % 2 == 1 then
            reader.bad = true
            return ""
        end
        local range = reader.take(length)
        local text = range and range:ustring() or ""
        if range and field then reader.items[#reader.items + 1] = { field, range, text } end
        return text, range
    end
    return reader
end

local pairing_bodies = {
    getApp = function(reader)
        return string.format(" unit %d %s", reader.number(2, pf.remote), reader.text(pf.path))
    end,
    app = function(reader)
        local name, size = reader.text(pf.name), reader.number(8, pf.size)
        reader.text(pf.digest)
        return string.format(" %s, %d bytes", name, size)
    end,
    appList = function(reader)
        local records = reader.number(4)
        for record = 1, records do
            for _ = 1, reader.number(4) do
                local key = reader.text()
                local value, range = reader.text()
                if range then
                    reader.items[#reader.items + 1] = { pf.entry, range, string.format("%d: %s = %s", record, key, value) }
                end
                if reader.short or reader.bad then return "" end
            end
            if reader.short or reader.bad then return "" end
        end
        return string.format(" of %d", records)
    end,
}

-- One message from an offset on. Returns its summary and its end, or nil when it has not arrived as a whole.
local function dissect_pairing_message(offset, buffer, pinfo, root)
    local reader, path = new_reader(buffer, offset), tcp_path(pinfo)
    local command = reader.text(pf.command)
    local detail = pairing_bodies[command] and pairing_bodies[command](reader) or ""
    if reader.bad then
        add_remark(root:add(pairing.proto, buffer(offset)), pairing, "malformed")
        return string.format("%d bytes of no message", buffer:len() - offset), buffer:len()
    end
    if reader.short then return nil end
    local tree = root:add(pairing.proto, buffer(offset, reader.offset - offset), "Tessaro Pairing, " .. command)
    for _, item in ipairs(reader.items) do
        if item[3] then tree:add(item[1], item[2], item[3]) else tree:add(item[1], item[2]) end
    end
    if PAIRING_ANSWERS[command] then
        add_answer(tree, pairing, path.back .. PAIRING_ANSWERS[command], pinfo, offset)
    elseif command == "getApp" or command == "getAppList" then
        add_request(tree, pairing, path.forth .. command, pinfo, { alone = true, place = offset })
    end
    return command .. detail, reader.offset
end

register(pairing, "Pairing", "tcp.port", { PAIRING_PORT }, function(buffer, pinfo, root)
    return dissect_stream(buffer, pinfo, function(offset) return dissect_pairing_message(offset, buffer, pinfo, root) end)
end)

local tf = {
    data = ProtoField.bytes("tessaro_transfer.data", "Archive data"),
    so_far = ProtoField.uint32("tessaro_transfer.so_far", "Bytes of the archive so far"),
}
local transfer = new_protocol("tessaro_transfer", "Tessaro Application Transfer", tf)

register(transfer, "Transfer", "tcp.port", { TRANSFER_PORT }, function(buffer, pinfo, root)
    local tree, flow = root:add(transfer.proto, buffer()), tcp_path(pinfo).forth
    local so_far = transfer.memory.once(pinfo, function(state)
        state[flow] = (state[flow] or 0) + buffer:len()
        return state[flow]
    end)
    tree:add(tf.data, buffer())
    tree:add(tf.so_far, so_far):set_generated()
    return string.format("%d bytes of an archive, %d so far", buffer:len(), so_far)
end)
