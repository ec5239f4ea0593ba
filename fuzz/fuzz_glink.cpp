// The byte stream of a remote unit. Frames are made whole or left raw; the stream must mean the same however the
// network cuts it.

#include "fuzzing.h"
#include "glinkheader.h"
#include "glinktransportbase.h"

#include <QVector>

namespace {

struct Message
{
    quint8 id;
    QByteArray payload;
    bool operator==(const Message& other) const { return id == other.id && payload == other.payload; }
};

/// A link that stops at the first damaged frame, as the TCP transport does, and counts what it would send.
class Probe : public GLinkTransportBase
{
public:
    Probe()
        : GLinkTransportBase(0, nullptr, nullptr, nullptr)
    {
        connect(this, &GLinkTransportBase::readyReadFromGLink, this,
                [this](quint16, quint8 id, const QByteArray& payload, GLinkTransportBase*) {
                    FUZZ_CHECK(id >= GLINK_MSG_ID_INIT && id <= GLINK_MSG_BASE_STATUS);
                    messages.append({id, payload});
                    FUZZ_CHECK(acks >= messages.size()); // acknowledged before anybody works on it
                });
    }

    void feed(const QByteArray& bytes)
    {
        m_incomingData.append(bytes);
        parseStream();
        FUZZ_CHECK(m_incomingData.isEmpty());
        FUZZ_CHECK(m_headerData.size() <= 17 && m_crcData.size() <= 4 && m_payloadData.size() <= m_payloadSize);
    }

    bool handleInitMsg() override { return true; }
    void handleInitAckMsg() override {}
    void handleCrcError() override
    {
        ++crcErrors;
        stopParsing();
    }
    bool sendMsg(QByteArray& frame) override
    {
        FUZZ_CHECK(GLinkTransportBase::sendMsg(frame));
        FUZZ_CHECK(frame.size() == 21 && referenceCrc(frame) == 0);
        ++acks;
        return true;
    }
    void run() override {}
    void send(quint16 remoteId, quint8 msgId, const QByteArray& message, quint32 refNr) override
    {
        send_(remoteId, msgId, message, refNr);
    }

    QVector<Message> messages;
    int acks = 0;
    int crcErrors = 0;
};

QByteArray frameFrom(FuzzInput& input)
{
    const quint8 shape = input.byte();
    if ((shape & 1) == 0) {
        return input.bytes(input.byte());
    }
    const quint8 id = input.byte();
    const int size = (shape & 2) != 0 ? input.word() : input.byte();
    const QByteArray payload = input.bytes(size);
    QByteArray header;
    header.append(static_cast<char>(payload.size())).append(static_cast<char>(payload.size() >> 8));
    header.append('\1').append(static_cast<char>(id)).append(static_cast<char>(shape >> 6));
    header.append(8, '\0');
    QByteArray frame = withReferenceCrc(withReferenceCrc(header) + payload);
    if ((shape & 4) != 0) {
        const int position = input.word() % frame.size();
        frame[position] = static_cast<char>(frame.at(position) ^ 0x40);
    }
    return frame;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    silenceLog();
    FuzzInput input(data, size);
    const int cut = input.byte() % 64 + 1;
    QByteArray stream;
    while (!input.isAtEnd()) {
        stream += frameFrom(input);
    }

    Probe whole;
    whole.feed(stream);
    Probe pieces;
    for (int position = 0; position < stream.size(); position += cut) {
        pieces.feed(stream.mid(position, cut));
    }
    FUZZ_CHECK(whole.messages == pieces.messages);
    FUZZ_CHECK(whole.acks == pieces.acks);
    FUZZ_CHECK((whole.crcErrors > 0) == (pieces.crcErrors > 0));
    return 0;
}
