-- Dissectors for the links of a Tessaro base unit: internal link, GLink, EGLink, UDP API and pairing.
--
-- tshark, Wireshark:  -X lua_script:tools/wireshark/tessaro.lua
--
-- They lie beside this file in tessaro/, one for each link and what they share, and make up one program in the order of
-- tessaro/order: what is local in one is known in those behind it. tools/wireshark/pack makes one file of them, to be
-- copied into a plug-in folder; the package has that one.
--
-- Frames of the internal link are captured as link type USER0 (147): one byte of direction (0 towards the base
-- controller, 1 from it), then the bytes of the line from the start byte to the newline. README.md beside this file tells
-- how to get captures, and what to filter for.

local FOLDER = debug.getinfo(1, "S").source:match("^@(.*[/\\])") or "./"

local function text_of(name)
    local file = assert(io.open(FOLDER .. "tessaro/" .. name, "r"))
    local text = file:read("*a")
    file:close()
    return text
end

local texts = {}
for name in text_of("order"):gmatch("%S+") do
    texts[#texts + 1] = text_of(name .. ".lua")
end
assert(load(table.concat(texts, "\n"), "=tessaro"))()
