// Datagrams on the loopback interface. Where they ask for something is judged by a search of its own.

#include "apiserver.h"
#include "fuzzing.h"
#include "tagdatabase.h"

#include <algorithm>
#include <string>

namespace {

struct Counts
{
    int reset = 0;
    int disarm = 0;
    int change = 0;
};

Counts expectedFor(const std::string& text)
{
    const auto has = [&](const char* word) {
        return text.find(word) != std::string::npos;
    };
    if (has("GET")) {
        return {};
    }
    if (has("RESET")) {
        return {1, 0, 0};
    }
    if (has("DISARM")) {
        return {0, 1, 0};
    }
    return has("CCHANGE") ? Counts{0, 0, 1} : Counts{};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    silenceLog();
    static TagDatabase tags(nullptr);
    APIServer server(&tags, 0, 6251, nullptr); // never started: answers go nowhere
    Counts seen;
    QObject::connect(&server, &APIServer::egResetMsgReceived, [&] { ++seen.reset; });
    QObject::connect(&server, &APIServer::ruDisarmMsgReceived, [&] { ++seen.disarm; });
    QObject::connect(&server, &APIServer::configChangeMsgReceived, [&] { ++seen.change; });

    server.handleDatagram(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));

    const Counts expected = expectedFor(std::string(reinterpret_cast<const char*>(data), size));
    FUZZ_CHECK(seen.reset == expected.reset && seen.disarm == expected.disarm && seen.change == expected.change);
    return 0;
}
