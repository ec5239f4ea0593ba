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
