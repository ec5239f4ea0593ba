#pragma once

#include "glinkclock.h"
#include "glinktransporttcp.h"
#include "pipesocket.h"

#include <QByteArray>
#include <QList>
#include <QPointer>
#include <QQueue>

#include <functional>

inline QByteArray number16(int value)
{
    const char bytes[] = {static_cast<char>(value), static_cast<char>(value >> 8)};
    return {bytes, sizeof(bytes)};
}

inline int valueOf16(const QByteArray& data, int offset)
{
    return static_cast<quint8>(data.at(offset)) + 256 * static_cast<quint8>(data.at(offset + 1));
}

/// A connection of a unit: the base unit's transport on a pipe to that unit.
class PipedTransport : public GLinkTransportTcp
{
public:
    explicit PipedTransport(std::function<void(const QByteArray&)> written, Configuration* config, TagDatabase* tags)
        : GLinkTransportTcp(-1, 0, config, tags, nullptr)
        , m_written(std::move(written))
    {}

    void arrive(const QByteArray& data) { m_pipe->arrive(data); }
    void end() { m_pipe->end(); }

protected:
    QTcpSocket* makeSocket() override { return m_pipe = new PipeSocket(m_written, this); }

private:
    std::function<void(const QByteArray&)> m_written;
    PipeSocket* m_pipe = nullptr;
};

/// One remote unit of the explored world: what it is in the middle of, and what it has been sent.
struct LinkUnit
{
    quint16 id = 0;

    // Its ways, as it sees them.
    bool isOnFallback = false;
    QPointer<PipedTransport> tcp;

    // What is done to it.
    bool isDeaf = false;            ///< hears nothing and says nothing
    bool isHoldingAcks = false;     ///< its acknowledgements stay under way
    bool isFlowHeld = false;        ///< the base controller does not ask for the next block
    bool losesNextAck = false;      ///< over the fallback
    bool losesNextBlock = false;    ///< on the way to it, over the fallback
    bool isLinkTaken = false;       ///< a rejected channel cost it its fallback, as described, until its next INIT
    QList<QByteArray> heldFrames;   ///< over the fallback
    QList<QByteArray> heldBytes;    ///< from it over TCP
    QList<QByteArray> unheardBytes; ///< to it over TCP, while it is deaf: the network repeats them
    int heldFlow = 0;

    // What came to it.
    QByteArray partial; ///< of a message over the fallback
    bool isPartialWhole = true;
    bool isAwaitingAnswer = false; ///< to its INIT, with which the base unit forgets what it was sending
    bool isRelayNew = false;       ///< the relay has started over, and the base unit has not yet
    bool isWithdrawn = false;      ///< it is back on TCP, and what the base unit had begun to send it stays half
    QQueue<bool> blocksOnTheirWay; ///< over the fallback; whether something overtook them over TCP
    bool isBlockThere = false;     ///< the one that sets out just now
    bool mayBeLate = false;        ///< what has just come was overtaken
    int tcpTurn = -1;              ///< in which something came over TCP last
    QByteArray stream;             ///< over TCP
    int lastCommand = 0;           ///< number of the last command
    bool mayMissCommands = false;  ///< something has happened that may cost it some, by a described rule
    int lastForward = 0;
    int lastMark = -1; ///< newest base status
    GLinkClock::TimePoint lastStatus;
    GLinkClock::TimePoint undisturbedSince;

    void forgetPartial()
    {
        partial.clear();
        isPartialWhole = true;
    }
    /// Whether half a message may come: somebody has just forgotten the other half.
    bool mayTear() const { return isAwaitingAnswer || isRelayNew || isWithdrawn; }
    bool isDisturbed() const
    {
        return isDeaf || isHoldingAcks || isFlowHeld || losesNextAck || losesNextBlock || isLinkTaken;
    }
};
