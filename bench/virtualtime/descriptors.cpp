#include "descriptors.h"

#include "participant.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#define EXPORTED __attribute__((visibility("default")))

using namespace virtualtime;

namespace virtualtime {
namespace {

constexpr int MaxDescriptors = 65536; // larger ones are not on the board: the kernel is asked for who waits for them

enum Kind : std::int8_t { Unknown, SerialLine, Other };

struct Known
{
    std::atomic<std::int16_t> events; ///< for which it hangs on the board; 0 it does not
    std::atomic<std::int16_t> slot;   ///< who waits for it, or did last
    std::atomic<std::int8_t> kind;
};

Known known[MaxDescriptors];

constexpr int MaxHanging = 64;        // of one thread; without a destructor, as a thread forgets them when it ends
thread_local int hanging[MaxHanging]; ///< what this thread waited for last
thread_local int hangingCount = 0;

bool isListed(int fd)
{
    return fd >= 0 && fd < MaxDescriptors;
}

void hang(int fd, short events)
{
    Known& entry = known[fd];
    if (entry.events == events && entry.slot == ownSlot()) {
        return;
    }
    epoll_event wanted = {};
    wanted.events = static_cast<std::uint32_t>(events); // the same numbers as those of poll
    wanted.data.u32 = static_cast<std::uint32_t>(ownSlot());
    const int board = page()->board;
    if (epoll_ctl(board, EPOLL_CTL_ADD, fd, &wanted) < 0 && errno == EEXIST) {
        epoll_ctl(board, EPOLL_CTL_MOD, fd, &wanted);
    }
    entry.events = events;
    entry.slot = static_cast<std::int16_t>(ownSlot());
}

void takeDownOwn(int fd)
{
    Known& entry = known[fd];
    if (entry.events && entry.slot == ownSlot()) {
        epoll_event unused = {};
        epoll_ctl(page()->board, EPOLL_CTL_DEL, fd, &unused);
        entry.events = 0;
    }
}

bool isAmong(const pollfd* fds, nfds_t count, int fd)
{
    for (nfds_t index = 0; index < count; ++index) {
        if (fds[index].fd == fd) {
            return true;
        }
    }
    return false;
}

} // namespace

int makeBoard()
{
    return epoll_create1(EPOLL_CLOEXEC);
}

void hangOut(const pollfd* fds, nfds_t count)
{
    const int error = errno;
    bool hidden = page()->board < 0;
    for (int index = 0; index < hangingCount; ++index) {
        if (!isAmong(fds, count, hanging[index])) {
            takeDownOwn(hanging[index]);
        }
    }
    hangingCount = 0;
    for (nfds_t index = 0; index < count; ++index) {
        if (isListed(fds[index].fd) && hangingCount < MaxHanging) {
            hang(fds[index].fd, fds[index].events);
            hanging[hangingCount++] = fds[index].fd;
        } else {
            hidden = hidden || fds[index].fd >= 0;
        }
    }
    Wait::hide(hidden);
    errno = error;
}

void forgetDescriptors()
{
    for (int index = 0; index < hangingCount; ++index) {
        takeDownOwn(hanging[index]);
    }
    hangingCount = 0;
}

void takeDown(int fd)
{
    if (isListed(fd)) {
        known[fd].events = 0; // the kernel takes it from the board
        known[fd].kind = Unknown;
    }
}

void callWaiterFor(int fd)
{
    const int slot = isListed(fd) && known[fd].events ? known[fd].slot.load() : -1;
    if (slot >= 0) {
        Slot& waiter = page()->slots[slot];
        const std::uint32_t state = waiter.state;
        if (doing(state) == Polling && rests(state)) {
            callThread(waiter, state);
        }
    }
}

bool isSerialLine(int fd)
{
    static const auto real = reinterpret_cast<decltype(&::ioctl)>(following("ioctl"));
    if (isListed(fd) && known[fd].kind != Unknown) {
        return known[fd].kind == SerialLine;
    }
    const int error = errno;
    struct termios settings; // NOLINT: the kernel fills in less than the library's structure
    const bool is = real(fd, TCGETS, &settings) == 0;
    errno = error;
    if (isListed(fd)) {
        known[fd].kind = is ? SerialLine : Other;
    }
    return is;
}

} // namespace virtualtime

extern "C" {

EXPORTED int close(int fd)
{
    static const auto real = reinterpret_cast<decltype(&::close)>(following("close"));
    if (page()) {
        takeDown(fd);
    }
    return real(fd);
}

/// How the server's threads wake one another.
EXPORTED int eventfd_write(int fd, eventfd_t value)
{
    static const auto real = reinterpret_cast<decltype(&::eventfd_write)>(following("eventfd_write"));
    if (page()) {
        callWaiterFor(fd); // before it can have gone on and be waiting again
    }
    return real(fd, value);
}

} // extern "C"
