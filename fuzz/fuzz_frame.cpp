// The internal link's stuffing and CRC: any line of any bytes.

#include "frame_layer.h"
#include "fuzzing.h"
#include "message_layer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FrameLayer frames;
    MessageLayer messages;
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));

    const QByteArray unstuffed = frames.remove(input);
    FUZZ_CHECK(unstuffed.size() <= input.size());
    FUZZ_CHECK(messages.check(unstuffed) == (!unstuffed.isEmpty() && referenceCrc(unstuffed) == 0));

    const QByteArray framed = frames.add(input);
    FUZZ_CHECK(framed.startsWith('\x82') && framed.endsWith('\n'));
    FUZZ_CHECK(framed.indexOf('\n') == framed.size() - 1);
    FUZZ_CHECK(framed.lastIndexOf('\x82') == 0);
    FUZZ_CHECK(framed.size() <= 2 * input.size() + 2);
    FUZZ_CHECK(frames.remove(framed) == input);

    QByteArray protectedInput = input;
    messages.add(protectedInput);
    FUZZ_CHECK(protectedInput == withReferenceCrc(input));
    FUZZ_CHECK(messages.check(protectedInput));
    messages.remove(protectedInput);
    FUZZ_CHECK(protectedInput == input);
    return 0;
}
