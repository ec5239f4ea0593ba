-- Ports, and names for states that several links have.

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
