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
