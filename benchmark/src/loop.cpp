#include "loop.h"

#include "failure.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <utility>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr int EventsAtOnce = 512;

timespec toTimespec(Nanoseconds duration)
{
    return {static_cast<time_t>(duration / Second), static_cast<long>(duration % Second)};
}

} // namespace

Nanoseconds now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * Second + time.tv_nsec;
}

Loop::Loop()
    : m_epoll(epoll_create1(EPOLL_CLOEXEC))
{
    check(m_epoll >= 0, "epoll_create1");
}

Loop::~Loop()
{
    close(m_epoll);
}

void Loop::watch(int fd, std::function<void()> readable)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    check(epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
    m_watched[fd] = std::move(readable);
}

void Loop::unwatch(int fd)
{
    epoll_ctl(m_epoll, EPOLL_CTL_DEL, fd, nullptr);
    m_watched.erase(fd);
}

int Loop::every(Nanoseconds period, std::function<void()> action)
{
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    check(timer >= 0, "timerfd_create");
    const itimerspec times{toTimespec(period), toTimespec(period)};
    timerfd_settime(timer, 0, &times, nullptr);
    watch(timer, [timer, action = std::move(action)] {
        std::uint64_t expirations = 0;
        if (read(timer, &expirations, sizeof(expirations)) == sizeof(expirations)) {
            action();
        }
    });
    return timer;
}

void Loop::cancel(int timer)
{
    unwatch(timer);
    close(timer);
}

void Loop::later(std::function<void()> action)
{
    m_later.push_back(std::move(action));
}

bool Loop::runUntil(const std::function<bool()>& isDone, Nanoseconds bound)
{
    const Nanoseconds until = now() + bound;
    while (!isDone()) {
        const Nanoseconds left = until - now();
        if (left <= 0) {
            return false;
        }
        serve(left);
    }
    return true;
}

void Loop::runFor(Nanoseconds duration)
{
    runUntil([] { return false; }, duration);
}

void Loop::serve(Nanoseconds bound)
{
    std::array<epoll_event, EventsAtOnce> events;
    const timespec wait = toTimespec(std::max<Nanoseconds>(bound, 0));
    const int count = epoll_pwait2(m_epoll, events.data(), EventsAtOnce, &wait, nullptr);
    check(count >= 0 || errno == EINTR, "epoll_pwait2");
    for (int i = 0; i < count; ++i) {
        const auto found = m_watched.find(events[static_cast<std::size_t>(i)].data.fd);
        if (found != m_watched.end()) {
            const auto readable = found->second; // a copy: it may unwatch itself
            readable();
        }
    }
    for (const auto& action : std::exchange(m_later, {})) {
        action();
    }
}

} // namespace bench
