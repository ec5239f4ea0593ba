#pragma once

#include "fakelinks.h"
#include "glinkconnection.h"

// Message ids on the wire.
constexpr quint8 InitAck = 2;
constexpr quint8 Command = 3;
constexpr quint8 Periodic = 4;
constexpr quint8 Forward = 5;
constexpr quint8 Status = 8;

/// A connection whose inner operations can be called.
class OpenConnection : public GLinkConnection
{
public:
    explicit OpenConnection(quint16 peerId)
        : GLinkConnection(peerId, static_cast<GLinkTransportTcp*>(nullptr), nullptr, nullptr)
    {}
    using GLinkConnection::getNextFallbackMessage;
    using GLinkConnection::m_nextRefNr;
    using GLinkConnection::updateRefNr;
};

inline void joinTcp(GLinkConnection& unit, GLinkTransportTcp& link)
{
    unit.setGLink(&link);
    unit.initChannel(&link);
}

inline void joinFallback(GLinkConnection& unit, GLinkTransportFallback& link)
{
    unit.setFallbackLink(&link);
    unit.initChannel(&link);
}
