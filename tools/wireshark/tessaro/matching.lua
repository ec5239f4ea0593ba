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
