// Requests of a service tool, as they come in from the network.

#include "fuzzing.h"
#include "pairrequest.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using Status = PairRequestDecoding::Status;
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const PairRequestDecoding decoding = decodePairRequest(bytes);

    if (decoding.status == Status::Complete) {
        FUZZ_CHECK(decoding.size > 0 && decoding.size <= bytes.size() && decoding.size <= PairRequest::MaxSize);
        FUZZ_CHECK(decoding.request.appPath.size() * 2 <= decoding.size);
        // What follows a request is none of its business, and a shorter run is not yet a request.
        const PairRequestDecoding exact = decodePairRequest(bytes.left(decoding.size));
        FUZZ_CHECK(exact.status == Status::Complete && exact.size == decoding.size);
        FUZZ_CHECK(exact.request.appPath == decoding.request.appPath && exact.request.ruId == decoding.request.ruId);
        FUZZ_CHECK(decodePairRequest(bytes.left(decoding.size - 1)).status == Status::Incomplete);
    } else if (decoding.status == Status::Incomplete) {
        FUZZ_CHECK(bytes.size() < PairRequest::MaxSize + 16);
    }
    return 0;
}
