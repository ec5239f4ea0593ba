#pragma once

#include "applicationmanifest.h"
#include "glinktransportfallback.h"
#include "glinktransporttcp.h"

#include <QCoreApplication>
#include <QList>
#include <QStringList>
#include <QTemporaryDir>

/// One message that a connection handed to a link.
struct SentMessage
{
    quint16 remoteId;
    quint8 msgId;
    QByteArray data;
    quint32 refNr;
};

/// What a fake link was told to send.
class SentMessages
{
public:
    QList<SentMessage> all;

    /// "id:data" of each message, after the queued calls have been delivered.
    QStringList texts() const
    {
        QCoreApplication::processEvents();
        QStringList list;
        for (const SentMessage& message : all) {
            list << QStringLiteral("%1:%2").arg(message.msgId).arg(QString::fromLatin1(message.data));
        }
        return list;
    }

    int count(quint8 msgId) const
    {
        QCoreApplication::processEvents();
        int matching = 0;
        for (const SentMessage& message : all) {
            matching += message.msgId == msgId ? 1 : 0;
        }
        return matching;
    }

    quint32 lastRefNr() const
    {
        QCoreApplication::processEvents();
        return all.isEmpty() ? 0 : all.last().refNr;
    }
};

/// A TCP link without a socket, in the thread of the test. Takes every message.
class FakeTcpLink : public GLinkTransportTcp
{
public:
    FakeTcpLink()
        : GLinkTransportTcp(-1, 0, nullptr, nullptr, nullptr)
    {}
    void send(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr) override
    {
        sent.all.append({remoteId, msgId, message, refNr});
    }

    SentMessages sent;
};

/// A TCP link that keeps to the rule of one message in flight; only its pipe is missing.
class PacedTcpLink : public GLinkTransportTcp
{
public:
    PacedTcpLink()
        : GLinkTransportTcp(-1, 0, nullptr, nullptr, nullptr)
    {}
    bool sendMsg(QByteArray& frame) override
    {
        written << quint8(frame.at(3));
        return true;
    }

    /// The acknowledgement of the message in flight arrives.
    void acknowledge()
    {
        m_rxHeader.msgId = static_cast<quint8>(m_expectedAck);
        handleAck();
    }

    QList<int> written; ///< message ids
};

class FakeFallbackLink : public GLinkTransportFallback
{
public:
    FakeFallbackLink()
        : GLinkTransportFallback(nullptr, nullptr, nullptr)
    {}
    void send(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr) override
    {
        sent.all.append({remoteId, msgId, message, refNr});
    }

    SentMessages sent;
};

/// Keeps transports of a test from looking through the build folder for applications.
class NoApplications
{
public:
    NoApplications() { ApplicationManifest::setRoot(m_folder.path()); }
    ~NoApplications() { ApplicationManifest::setRoot(QString()); }
    NoApplications(const NoApplications&) = delete;
    NoApplications& operator=(const NoApplications&) = delete;

private:
    QTemporaryDir m_folder;
};
