// Packets of the internal link. The input is a list of lines, raw or made whole with CRC and stuffing, so that the
// engine gets past the CRC without having to guess it.

#include "frame_layer.h"
#include "fuzzing.h"
#include "transport_layer.h"

#include <QCoreApplication>

namespace {

struct Delivery
{
    int count = 0;
    QByteArray payload;
    quint8 service = 0;
    quint8 messageClass = 0;
};

constexpr int HeaderSize = 2;
constexpr quint8 InvalidClass = 0;
constexpr quint8 AckClass = 3;

TransportLayer& transport()
{
    static int argc = 0;
    static QCoreApplication application(argc, nullptr);
    static TransportLayer layer(nullptr);
    return layer;
}

QByteArray lineFrom(FuzzInput& input)
{
    const bool isWhole = (input.byte() & 1) != 0;
    const QByteArray content = input.bytes(input.byte());
    return isWhole ? FrameLayer().add(withReferenceCrc(content)) : content;
}

/// What must come up from a line: nothing, or the packet's payload with its service and class.
void deliver(const QByteArray& line)
{
    const QByteArray packet = FrameLayer().remove(line);
    const bool isIntact = packet.size() >= HeaderSize + 4 && referenceCrc(packet) == 0;
    const auto control = static_cast<quint8>(packet.isEmpty() ? 0 : packet.at(0));
    if (isIntact && control >> 6 == InvalidClass) {
        return; // ends the process, by design
    }
    Delivery delivery;
    const auto connection =
        QObject::connect(&transport(), &TransportLayer::readyRead,
                         [&](const QByteArray& payload, Link from, quint8 service, quint8 messageClass) {
                             FUZZ_CHECK(from == Internal);
                             ++delivery.count;
                             delivery.payload = payload;
                             delivery.service = service;
                             delivery.messageClass = messageClass;
                         });
    transport().readDataFromInternal(line);
    QObject::disconnect(connection);

    const QByteArray payload = isIntact ? packet.mid(HeaderSize, packet.size() - HeaderSize - 4) : QByteArray();
    const bool isExpected = isIntact && !(control >> 6 == AckClass && payload.isEmpty());
    FUZZ_CHECK(delivery.count == (isExpected ? 1 : 0));
    if (isExpected) {
        FUZZ_CHECK(delivery.payload == payload);
        FUZZ_CHECK(delivery.service == static_cast<quint8>(packet.at(1)));
        FUZZ_CHECK(delivery.messageClass == control >> 6);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    silenceLog();
    FuzzInput input(data, size);
    transport().readDataFromService(QByteArray(1, '\0'), Internal, 100, 1);
    while (!input.isAtEnd()) {
        deliver(lineFrom(input));
    }
    transport().clearSendBuffer(2);
    return 0;
}
