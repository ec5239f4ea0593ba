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
