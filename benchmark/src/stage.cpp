#include "stage.h"

#include "board.h"
#include "failure.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr Nanoseconds Patience = 10 * Second;
constexpr Nanoseconds SettleTime = 300 * Millisecond;

// Where values lie in the example's process image.
constexpr std::size_t ImageSize = 80;
constexpr std::size_t IdentityOffset = 0;
constexpr std::size_t RuStateOffset = 10;
constexpr std::size_t HoistSpeedOffset = 12;

Routes* clearedRoutes()
{
    static Routes* const routes = makeSharedRoutes();
    *routes = Routes{};
    return routes;
}

} // namespace

std::string processImage(unsigned char ruState, unsigned speed)
{
    std::string image(ImageSize, '\0');
    image.replace(IdentityOffset, 2, little16(BaseUnitId));
    image[RuStateOffset] = static_cast<char>(ruState);
    image.replace(HoistSpeedOffset, 2, little16(speed));
    return image;
}

bool unitsCanConnect()
{
    const int fd = peerSocket(SOCK_STREAM);
    const sockaddr_in address = addressOf(BoardOnPrivateNetwork, GLinkPort);
    connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    pollfd waiting{fd, POLLOUT, 0};
    const bool isOpen = poll(&waiting, 1, 1) == 1 && (waiting.revents & (POLLERR | POLLHUP)) == 0;
    close(fd);
    return isOpen;
}

Stage::Stage(Side which, int tty)
    : side(which)
    , routes(clearedRoutes())
    , api(loop)
    , controller(loop, fcntl(tty, F_DUPFD_CLOEXEC, 0))
    , process(which == Side::Server ? Process::server() : Process::copy([this] { forward(*routes); }))
    , machine(loop)
{
    startUp();
}

void Stage::startUp()
{
    if (side == Side::Server) {
        check(loop.runUntil([this] { return controller.firstFrame != 0; }, Patience), "the server says nothing");
        controller.send(ProcessData, processImage(0));
    }
    check(loop.runUntil([this] { return controller.isIdle() && unitsCanConnect(); }, Patience),
          "nobody listens to units");
    loop.runFor(SettleTime);
}

void Stage::joinUnits(std::size_t count)
{
    while (units.size() < count) {
        const auto id = FirstUnitId + static_cast<unsigned>(units.size());
        units.push_back(std::make_unique<RemoteUnit>(loop, id, side == Side::Server));
        check(loop.runUntil([this] { return units.back()->isJoined(); }, Patience), "a unit cannot join");
    }
    loop.runFor(SettleTime);
}

long Stage::delivered() const
{
    long total = api.messages + machine.messages + controller.messages;
    for (const auto& unit : units) {
        total += unit->messages;
    }
    return total;
}

} // namespace bench
