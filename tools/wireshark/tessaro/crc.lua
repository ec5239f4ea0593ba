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
