// The fallback service between base controller and remote units: blocks in, flow control, messages out.

#include "fuzzing.h"
#include "gfallback_service_c.h"

#include <QMap>

namespace {

constexpr int BlockHeader = 4;
constexpr int BlockData = 250;

int wordAt(const QByteArray& data, int offset)
{
    return static_cast<quint8>(data.at(offset)) | static_cast<quint8>(data.at(offset + 1)) << 8;
}

/// Every block that goes out fits, and the blocks of one message count down without a gap.
class BlockJudge
{
public:
    void judge(const QByteArray& block)
    {
        FUZZ_CHECK(block.size() > BlockHeader && block.size() <= BlockHeader + BlockData);
        const int data = block.size() - BlockHeader;
        const int remaining = wordAt(block, 2);
        FUZZ_CHECK(data == (remaining < BlockData ? remaining : BlockData));
    }
};

QByteArray messageFrom(FuzzInput& input)
{
    const quint8 type = input.byte() & 1;
    QByteArray message(4, '\0');
    message.append(static_cast<char>(type));
    message.append(input.word() % 1200 + 16, 'x');
    return message;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    silenceLog();
    FuzzInput input(data, size);
    GfallbackServiceC service(nullptr, SERVICE_G_FALLBACK);
    BlockJudge judge;
    QObject::connect(&service, &ServiceBase::readyReadFromService,
                     [&](const QByteArray& block, Link to, quint8 id, quint8 messageClass) {
                         FUZZ_CHECK(to == Internal && id == 105 && messageClass == 1);
                         judge.judge(block);
                     });
    QObject::connect(&service, &GfallbackServiceC::fallbackRx, [&](unsigned short, const QByteArray& message) {
        FUZZ_CHECK(message.size() <= GfallbackServiceC::MaxRxMessageSize);
    });
    while (!input.isAtEnd()) {
        const quint8 action = input.byte();
        switch (action & 3) {
        case 0: service.fallbackTx(action >> 6, messageFrom(input)); break;
        case 1: service.readData_(QByteArray(1, static_cast<char>(action >> 6)).append('\0')); break;
        case 2: service.readData_(input.bytes(input.byte())); break;
        default: service.reset(action >> 6); break;
        }
    }
    return 0;
}
