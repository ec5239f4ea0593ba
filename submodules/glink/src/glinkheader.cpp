#include "glinkheader.h"

#include <QDataStream>
#include <QDateTime>
#include <QDebug>

#include <algorithm>

namespace {

constexpr char UndefinedName[] = "UNDEFINED";
constexpr int InitAckTextOffset = 2;

struct Name
{
    quint8 value;
    const char* text;
};

constexpr Name MsgIdNames[] = {
    {GLINK_MSG_ID_HEARTBEAT, "HEARTBEAT"},
    {GLINK_MSG_ID_INIT, "INIT"},
    {GLINK_MSG_ID_INITACK, "INITACK"},
    {GLINK_MSG_ID_CMD, "CMD"},
    {GLINK_MSG_ID_PERIODIC_DATA, "PERIODIC DATA"},
    {GLINK_MSG_ID_SERVICE_FORWARD, "SERVICE FORWARD"},
    {GLINK_MSG_ID_POWER_OFF, "POWER OFF"},
    {GLINK_MSG_ID_M_STOP, "E STOP"},
    {GLINK_MSG_BASE_STATUS, "BASE STATUS"},
    {GLINK_MSG_ID_FALLBACK_DEINIT, "FALLBACK DEINIT"},
};

constexpr Name MsgTypeNames[] = {
    {GLINK_MSG_TYPE_MSG, "MSG"},
    {GLINK_MSG_TYPE_ACK, "ACK"},
};

template<int Count>
const char* nameOf(quint8 value, const Name (&names)[Count])
{
    const auto name = std::find_if(std::begin(names), std::end(names), [value](Name n) { return n.value == value; });
    return name != std::end(names) ? name->text : UndefinedName;
}

/// Writes numbers and single bytes behind each other, without any framing.
class Writer : public QDataStream
{
public:
    explicit Writer(QByteArray* bytes)
        : QDataStream(bytes, QIODevice::WriteOnly)
    {
        setByteOrder(QDataStream::LittleEndian);
    }
};

/// Reads them back; past the end everything is zero.
class Reader : public QDataStream
{
public:
    explicit Reader(const QByteArray& bytes)
        : QDataStream(bytes)
    {
        setByteOrder(QDataStream::LittleEndian);
    }
};

} // namespace

GLinkHeader::GLinkHeader(QByteArray bytes)
{
    bytes.truncate(GLinkFrame::HeaderSize);
    if (bytes.size() != GLinkFrame::HeaderSize) {
        return;
    }
    m_isCrcOk = CrcStd32::checkAndRemove(bytes);
    if (m_isCrcOk) {
        Reader(bytes) >> size >> stream >> msgId >> msgType >> time;
    }
}

void GLinkHeader::print() const {}

QByteArray GLinkHeader::serialize() const
{
    QByteArray bytes;
    Writer(&bytes) << size << stream << msgId << msgType << time;
    bytes.append(GLinkFrame::ReservedSize, '\0');
    CrcStd32::add(bytes);
    return bytes;
}

void GLinkHeader::printHeader() const
{
    qDebug() << "GLinkHeader:" << msgIdName(msgId) << msgTypeName(msgType) << "size" << size << "stream" << stream
             << "time" << time;
}

quint32 GLinkHeader::timeStamp()
{
    return static_cast<quint32>(QDateTime::currentMSecsSinceEpoch());
}

const char* GLinkHeader::msgIdName(quint8 msgId)
{
    return nameOf(msgId, MsgIdNames);
}

const char* GLinkHeader::msgTypeName(quint8 msgType)
{
    return nameOf(msgType, MsgTypeNames);
}

GLinkAck::GLinkAck(const GLinkHeader& acked)
{
    stream = acked.stream;
    msgId = acked.msgId;
    msgType = GLINK_MSG_TYPE_ACK;
    time = timeStamp();
    m_isCrcOk = true;
}

GLinkInitMsg::GLinkInitMsg(const QByteArray& bytes)
{
    Reader reader(bytes);
    reader >> majVersion >> minVersion >> remoteId >> baseId;
    for (quint8& byte : configChecksum) {
        reader >> byte;
    }
}

void GLinkInitMsg::print() const
{
    qDebug() << "GLinkInit:";
    qDebug() << "Major version:\t" << majVersion;
    qDebug() << "Minor version:\t" << minVersion;
    qDebug() << "Remote id:\t" << remoteId;
    qDebug() << "Base ID:\t" << baseId;
    qDebug() << "Config checksum:\t" << checksum().toHex();
}

QByteArray GLinkInitMsg::serialize() const
{
    QByteArray bytes;
    Writer(&bytes) << majVersion << minVersion << remoteId << baseId;
    return bytes + checksum();
}

QByteArray GLinkInitMsg::checksum() const
{
    return QByteArray(reinterpret_cast<const char*>(configChecksum), GLinkInitLayout::ChecksumSize);
}

GLinkInitAck::GLinkInitAck(quint16 code, const QByteArray& text)
    : errorCode(code)
    , errorString(text)
{}

GLinkInitAck::GLinkInitAck(const QByteArray& bytes)
    : errorString(bytes.mid(InitAckTextOffset))
{
    Reader(bytes) >> errorCode;
}

void GLinkInitAck::print() const
{
    qDebug() << "GLinkInitAck:";
    qDebug() << "Error code:\t" << errorCode;
    qDebug() << "Error string:\t" << errorString;
}

QByteArray GLinkInitAck::serialize() const
{
    QByteArray bytes;
    Writer(&bytes) << errorCode;
    return bytes + errorString.leftJustified(errorStringMaxLength, '\0', true);
}
