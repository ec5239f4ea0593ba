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
