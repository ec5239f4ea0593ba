#pragma once

#include "gfallback_service_c.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>

// Remote units as the hub's peers, with a codec of their own.

/// CRC of all frames, bit by bit, most significant byte first.
inline QByteArray frameCrc(const QByteArray& data)
{
    quint32 crc = 0xFFFFFFFF;
    for (const char byte : data) {
        crc ^= static_cast<quint32>(static_cast<quint8>(byte)) << 24;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x80000000) != 0 ? (crc << 1) ^ 0x04C11DB7 : crc << 1;
        }
    }
    const char bytes[] = {char(crc >> 24), char(crc >> 16), char(crc >> 8), char(crc)};
    return {bytes, sizeof(bytes)};
}

/// A whole frame; the time stamp is 0.
inline QByteArray gLinkFrame(quint8 msgId, const QByteArray& payload, bool isAck = false)
{
    const char fields[] = {char(payload.size()), char(payload.size() >> 8), msgId == 3 ? '\0' : '\1', char(msgId),
                           isAck ? '\1' : '\0'};
    QByteArray frame = QByteArray(fields, sizeof(fields)) + QByteArray(8, '\0');
    frame += frameCrc(frame);
    frame += payload;
    return frame + frameCrc(frame);
}

inline QByteArray gLinkAck(quint8 msgId)
{
    return gLinkFrame(msgId, QByteArray(), true);
}

/// What was received of one unit: whole frames.
struct ReceivedFrames
{
    static QByteArray payloadOf(const QByteArray& frame) { return frame.mid(17).chopped(4); }

    int count(quint8 msgId, bool isAck = false) const
    {
        int matching = 0;
        for (const QByteArray& frame : frames) {
            matching += quint8(frame.at(3)) == msgId && (frame.at(4) == 1) == isAck ? 1 : 0;
        }
        return matching;
    }
    QByteArrayList payloads(quint8 msgId) const
    {
        QByteArrayList list;
        for (const QByteArray& frame : frames) {
            if (quint8(frame.at(3)) == msgId && frame.at(4) == 0) {
                list << payloadOf(frame);
            }
        }
        return list;
    }
    QByteArray lastPayload(quint8 msgId) const { return payloads(msgId).value(payloads(msgId).size() - 1); }

    QList<QByteArray> frames;
};

/// The base controller's relay with the remote units behind it: joins the blocks of the fallback service, asks for the
/// next ones, and acknowledges messages in the units' name unless told not to.
class FallbackRelay : public QObject
{
public:
    explicit FallbackRelay(GfallbackServiceC* service)
        : m_service(service)
    {
        qRegisterMetaType<Link>("Link");
        connect(service, &ServiceBase::readyReadFromService, this, &FallbackRelay::receive);
    }

    /// A remote unit sends a frame.
    void deliver(quint16 remoteId, QByteArray frame)
    {
        while (!frame.isEmpty()) {
            const QByteArray block = number(remoteId) + number(static_cast<quint16>(frame.size())) + frame.left(250);
            frame.remove(0, 250);
            toService(block);
        }
    }
    void reject() { toService(QByteArray(1, '\0')); }

    ReceivedFrames& unit(quint16 remoteId) { return m_units[remoteId]; }

    /// The relay is ready for the unit's next block.
    void ask(quint16 remoteId) { toService(number(remoteId)); }

    bool isAcknowledging = true;
    bool isAsking = true; ///< for the next block, as soon as it has one

private:
    static QByteArray number(quint16 value)
    {
        const char bytes[] = {char(value), char(value >> 8)};
        return {bytes, sizeof(bytes)};
    }

    void toService(const QByteArray& data)
    {
        if (m_service.isNull()) {
            return; // its thread has ended, and what it said last is being heard
        }
        QMetaObject::invokeMethod(
            m_service, [service = m_service.data(), data] { service->readData(data, Internal, MSG_CLASS_TRANSP_ACK); },
            Qt::QueuedConnection);
    }

    void receive(const QByteArray& block)
    {
        const auto remoteId = static_cast<quint16>(quint8(block.at(0)) + 256 * quint8(block.at(1)));
        const int remaining = quint8(block.at(2)) + 256 * quint8(block.at(3));
        QByteArray& partial = m_partial[remoteId];
        partial += block.mid(4);
        if (isAsking) {
            ask(remoteId);
        }
        if (remaining > block.size() - 4) {
            return;
        }
        m_units[remoteId].frames << partial;
        const auto msgId = static_cast<quint8>(partial.at(3));
        if (isAcknowledging && partial.at(4) == 0) {
            deliver(remoteId, gLinkAck(msgId));
        }
        partial.clear();
    }

    QPointer<GfallbackServiceC> m_service;
    QHash<quint16, QByteArray> m_partial;
    QHash<quint16, ReceivedFrames> m_units;
};
