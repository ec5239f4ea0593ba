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
