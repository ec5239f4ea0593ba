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
