#pragma once

#include "glinktransportbase.h"

#include <QList>
#include <QStringList>

/// A transport whose pipe is a list. Records what it writes, passes on and is asked for, as one list of events in their
/// order.
class RecordingTransport : public GLinkTransportBase
{
public:
    explicit RecordingTransport(Configuration* config = nullptr, TagDatabase* tagDatabase = nullptr)
        : GLinkTransportBase(0, config, tagDatabase, nullptr)
    {
        connect(this, &GLinkTransportBase::readyReadFromGLink, this, &RecordingTransport::recordPassedOn);
        connect(this, &GLinkTransportBase::messageSent, this, &RecordingTransport::recordSent);
    }

    void receive(const QByteArray& bytes)
    {
        m_incomingData.append(bytes);
        parseStream();
    }

    bool sendMsg(QByteArray& frame) override
    {
        GLinkTransportBase::sendMsg(frame);
        if (!isPipeOpen) {
            return false;
        }
        frames << frame;
        receivers << frameReceiver();
        events << QStringLiteral("wrote id %1 type %2").arg(quint8(frame.at(3))).arg(quint8(frame.at(4)));
        return true;
    }
    bool handleInitMsg() override
    {
        events << QStringLiteral("INIT");
        lastVerdict = GLinkTransportBase::handleInitMsg();
        return lastVerdict;
    }
    void handleCrcError() override
    {
        events << (isFrameRejected() ? QStringLiteral("CRC error again") : QStringLiteral("CRC error"));
        unconsumedAtCrcError << m_incomingData;
        if (stopsAtCrcError) {
            stopParsing();
        }
        if (clearsAtCrcError) {
            m_incomingData.clear();
        }
    }
    void handleInitAckMsg() override { events << QStringLiteral("INITACK"); }
    void handleFallbackDeInit() override { events << QStringLiteral("DEINIT"); }
    void run() override {}
    void send(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr) override
    {
        send_(remoteId, msgId, message, refNr);
    }

    using GLinkTransportBase::discardIncoming;
    using GLinkTransportBase::m_checksumList;
    using GLinkTransportBase::m_expectedAck;
    using GLinkTransportBase::m_incomingData;
    using GLinkTransportBase::m_rxPeerId;
    using GLinkTransportBase::m_txPeerId;
    using GLinkTransportBase::requestChecksumList;

    QList<QByteArray> frames;
    QList<quint16> receivers;
    QStringList events;
    QList<QByteArray> unconsumedAtCrcError;
    bool stopsAtCrcError = false;
    bool clearsAtCrcError = false;
    bool isPipeOpen = true;
    bool lastVerdict = false;

private:
    void recordPassedOn(quint16 remoteId, quint8 msgId, const QByteArray& data, GLinkTransportBase* channel)
    {
        events << QStringLiteral("passed on from %1 id %2: %3").arg(remoteId).arg(msgId).arg(QString(data.toHex()));
        Q_ASSERT(channel == this);
    }
    void recordSent(quint16 remoteId, quint32 refNr, GLinkTransportBase* self)
    {
        events << QStringLiteral("sent to %1 ref %2").arg(remoteId).arg(refNr);
        Q_ASSERT(self == this);
    }
};
