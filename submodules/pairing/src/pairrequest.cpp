#include "pairrequest.h"

#include <QtEndian>

namespace {

using Status = PairRequestDecoding::Status;

constexpr int LengthSize = 4;
constexpr int RuIdSize = 2;
constexpr int CodeUnitSize = 2;
constexpr quint32 NullText = 0xFFFFFFFF;

constexpr struct
{
    const char* text;
    PairRequest::Command command;
} Commands[] = {
    {"getApp", PairRequest::Command::GetApp},
    {"getAppList", PairRequest::Command::GetAppList},
    {"startTransfer", PairRequest::Command::StartTransfer},
};

PairRequest::Command commandOf(const QString& text)
{
    for (const auto& entry : Commands) {
        if (text == QLatin1String(entry.text)) {
            return entry.command;
        }
    }
    return PairRequest::Command::Unknown;
}

/// Walks over the bytes field by field. Once a field cannot be read, `status` says why and every later field is empty.
class Reader
{
public:
    explicit Reader(const QByteArray& bytes)
        : m_bytes(bytes)
    {}

    Status status() const { return m_status; }
    int position() const { return m_position; }

    quint16 word()
    {
        const uchar* field = take(RuIdSize);
        return field != nullptr ? qFromBigEndian<quint16>(field) : quint16(0);
    }

    QString text()
    {
        const uchar* field = take(LengthSize);
        const quint32 length = field != nullptr ? qFromBigEndian<quint32>(field) : NullText;
        return length != NullText ? codeUnits(length) : QString();
    }

private:
    QString codeUnits(quint32 length)
    {
        if (length % CodeUnitSize != 0) {
            m_status = Status::Corrupt;
            return {};
        }
        const uchar* field = take(length);
        if (field == nullptr) {
            return {};
        }
        QString text(int(length) / CodeUnitSize, Qt::Uninitialized);
        for (int i = 0; i < text.size(); ++i) {
            text[i] = QChar(qFromBigEndian<quint16>(field + i * CodeUnitSize));
        }
        return text;
    }

    const uchar* take(quint32 size)
    {
        if (m_status != Status::Complete) {
            return nullptr;
        }
        if (size > quint32(PairRequest::MaxSize - m_position)) {
            m_status = Status::TooLong;
            return nullptr;
        }
        if (size > quint32(m_bytes.size() - m_position)) {
            m_status = Status::Incomplete;
            return nullptr;
        }
        const auto* field = reinterpret_cast<const uchar*>(m_bytes.constData()) + m_position;
        m_position += int(size);
        return field;
    }

    const QByteArray& m_bytes;
    int m_position = 0;
    Status m_status = Status::Complete;
};

} // namespace

PairRequestDecoding decodePairRequest(const QByteArray& bytes)
{
    Reader reader(bytes);
    PairRequestDecoding decoding;
    decoding.request.command = commandOf(reader.text());
    if (decoding.request.command == PairRequest::Command::GetApp) {
        decoding.request.ruId = reader.word();
        decoding.request.appPath = reader.text();
    }
    decoding.status = reader.status();
    if (decoding.status != Status::Complete) {
        decoding.request = PairRequest();
        return decoding;
    }
    decoding.size = reader.position();
    return decoding;
}
