#pragma once

#include "patience.h"

#include <QByteArray>
#include <QHostAddress>
#include <QString>
#include <QTcpSocket>
#include <QTest>

/// The bytes of a text on the wire: length in bytes, then UTF-16, both big-endian. Written by hand, so that a mistake
/// of the server is not mirrored.
inline QByteArray wireText(const QString& text)
{
    QByteArray bytes;
    const quint32 length = quint32(text.size()) * 2;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.append(char(length >> shift));
    }
    for (const QChar unit : text) {
        bytes.append(char(unit.unicode() >> 8));
        bytes.append(char(unit.unicode() & 0xFF));
    }
    return bytes;
}

inline QByteArray getAppListRequest()
{
    return wireText(QStringLiteral("getAppList"));
}

inline QByteArray startTransferRequest()
{
    return wireText(QStringLiteral("startTransfer"));
}

inline QByteArray getAppRequest(quint16 ruId, const QString& path)
{
    return wireText(QStringLiteral("getApp")) + char(ruId >> 8) + char(ruId & 0xFF) + wireText(path);
}

/// Takes a reply apart, field by field. A field that is not there comes out empty and makes the reply `short`.
class ReplyReader
{
public:
    explicit ReplyReader(const QByteArray& bytes)
        : m_bytes(bytes)
    {}

    quint64 number(int size)
    {
        quint64 value = 0;
        for (const char byte : take(size)) {
            value = (value << 8) | quint8(byte);
        }
        return value;
    }
    QString text()
    {
        const QByteArray units = take(int(number(4)));
        QString text;
        for (int i = 0; i + 1 < units.size(); i += 2) {
            text.append(QChar(ushort(quint8(units.at(i)) << 8 | quint8(units.at(i + 1)))));
        }
        return text;
    }
    bool isAtEnd() const { return m_bytes.isEmpty(); }
    bool isShort() const { return m_short; }

private:
    QByteArray take(int size)
    {
        m_short = m_short || size < 0 || size > m_bytes.size();
        QByteArray taken = m_bytes.left(size);
        m_bytes.remove(0, taken.size());
        return taken;
    }

    QByteArray m_bytes;
    bool m_short = false;
};

/// What the metadata of an offered archive says.
struct Offer
{
    QString command;
    QString name;
    quint64 size = 0;
    QString md5;
    bool whole = false;

    static Offer from(const QByteArray& bytes)
    {
        ReplyReader reader(bytes);
        Offer offer;
        offer.command = reader.text();
        offer.name = reader.text();
        offer.size = reader.number(8);
        offer.md5 = reader.text();
        offer.whole = reader.isAtEnd() && !reader.isShort();
        return offer;
    }
};

/// A connection of a service tool, for requests or for a file; keeps what it receives.
class ToolConnection
{
public:
    explicit ToolConnection(quint16 port) { socket.connectToHost(QHostAddress(QHostAddress::LocalHost), port); }

    bool isUp() const { return socket.state() == QAbstractSocket::ConnectedState; }
    void send(const QByteArray& bytes)
    {
        socket.write(bytes);
        socket.flush();
    }
    const QByteArray& received()
    {
        m_received += socket.readAll();
        return m_received;
    }
    /// From now on no more than `bytes` and what the kernel holds, some 100 KiB, are taken off the line.
    void takeOnly(qint64 bytes)
    {
        socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 64 * 1024);
        socket.setReadBufferSize(bytes);
    }
    void takeEverything()
    {
        socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 4 * 1024 * 1024);
        socket.setReadBufferSize(0);
    }
    void forget()
    {
        received();
        m_received.clear();
    }

    QTcpSocket socket;

private:
    QByteArray m_received;
};
