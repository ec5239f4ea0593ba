// Datagrams from the machine controller's network, through header check and dispatch of a link without sockets.

#include "eglink.h"
#include "fuzzing.h"

#include <QCoreApplication>
#include <QVector>

#include <algorithm>

namespace {

constexpr quint32 ImageBytes = 2 * 491;
constexpr int HeaderSize = 16;

class Probe : public EGLink
{
public:
    Probe()
        : EGLink(QHostAddress(QStringLiteral("239.255.42.20")), 5825, ImageBytes, 7, 400, nullptr)
    {
        connect(this, &EGLink::sendCmd, this, [this](const QByteArray& command) { commands.append(command); });
        connect(this, &EGLink::sendToRGP, this,
                [](const QByteArray& image) { FUZZ_CHECK(image.size() <= static_cast<int>(ImageBytes)); });
    }
    using EGLink::handleDatagram;

    QVector<QByteArray> commands;
    int sent = 0;

protected:
    void configureMulticastSockets() override {}
    bool transmit(const QByteArray& packet) override
    {
        FUZZ_CHECK(packet.size() <= 512 && referenceCrc(packet) == 0);
        ++sent;
        return true;
    }
};

QByteArray datagramFrom(FuzzInput& input)
{
    static const char* const types[] = {"VRPO", "VRCO", "VRAO", "VRPI", "VRCI", "VRAI", "VRXX", ""};
    const quint8 shape = input.byte();
    if ((shape & 1) == 0) {
        return input.bytes(input.byte());
    }
    const QByteArray payload = input.bytes((shape & 2) != 0 ? input.word() % 600 : input.byte());
    const quint16 serial = input.word();
    const int size = payload.size() + ((shape & 4) != 0 ? static_cast<qint8>(input.byte()) : 0);
    QByteArray packet(types[shape >> 5]);
    packet.append((shape & 8) != 0 ? '\1' : '\0').append('\0');
    packet.append((shape & 16) != 0 ? '\1' : '\0').append('\0');
    packet.append(static_cast<char>(serial)).append(static_cast<char>(serial >> 8));
    packet.append(static_cast<char>(size)).append(static_cast<char>(size >> 8));
    packet.append(4, '\0');
    return withReferenceCrc(packet + payload);
}

/// Whether a datagram may have any effect: whole, for this revision, from the controller, of the length that it says.
bool isClean(const QByteArray& datagram)
{
    const int payload = datagram.size() - HeaderSize - 4;
    if (payload < 0 || datagram.size() > 512 || referenceCrc(datagram) != 0) {
        return false;
    }
    const auto field = [&](int offset) {
        return static_cast<quint8>(datagram.at(offset)) | static_cast<quint8>(datagram.at(offset + 1)) << 8;
    };
    return field(4) == 0 && field(6) == 0 && field(10) == payload;
}

void deliver(Probe& link, const QByteArray& datagram)
{
    const int sentBefore = link.sent;
    const int commandsBefore = link.commands.size();
    link.handleDatagram(datagram);
    const bool isCommand = isClean(datagram) && datagram.startsWith("VRCO") && datagram.size() >= HeaderSize + 2 + 4;
    FUZZ_CHECK(link.commands.size() - commandsBefore == link.sent - sentBefore); // taken and acknowledged, or neither
    FUZZ_CHECK(link.commands.size() - commandsBefore <= (isCommand ? 1 : 0));
    if (link.commands.size() > commandsBefore) {
        // Without its reserved bytes a command is an empty one.
        const int length = std::max(0, datagram.size() - HeaderSize - 6 - 4);
        FUZZ_CHECK(link.commands.last() == datagram.mid(HeaderSize + 6, length));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static int argc = 0;
    static QCoreApplication application(argc, nullptr);
    silenceLog();
    FuzzInput input(data, size);
    Probe link;
    link.run();
    while (!input.isAtEnd()) {
        deliver(link, datagramFrom(input));
    }
    return 0;
}
