// Waits for descriptors, for time, and on futexes: none of them reaches the kernel with a time limit.
#include "descriptors.h"
#include "participant.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#define EXPORTED __attribute__((visibility("default")))

using namespace virtualtime;

namespace {

constexpr timespec NoTime{0, 0};

std::int64_t deadlineOf(const timespec* timeout)
{
    return timeout ? deadlineAfter(*timeout) : Never;
}

/// `look(timeout, mask)` is a call like ppoll's; it is asked at once and then, after `prepare`, for as long as it
/// takes.
template<typename Look, typename Prepare>
int waitForDescriptors(std::int64_t deadline, const sigset_t* wanted, Look look, Prepare prepare)
{
    int found = look(&NoTime, wanted);
    if (found == 0 && isOver(deadline) && spins()) {
        deadline = page()->now + Millisecond;
    }
    if (found != 0 || isOver(deadline)) {
        return found;
    }
    const sigset_t mask = waitMask(wanted);
    prepare();
    while (found == 0 && !isOver(deadline)) {
        const Wait wait(Polling, deadline);
        found = look(nullptr, &mask);
        if (found < 0 && errno == EINTR && Wait::wasCalled()) {
            found = 0;
        }
    }
    return found;
}

/// A limited wait for something that can only be tried: once a virtual millisecond, until `attempt` gives another
/// number than `notYet`.
template<typename Attempt>
int tryUntil(std::int64_t deadline, int notYet, Attempt attempt)
{
    int result = attempt();
    while (result == notYet && !isOver(deadline)) {
        sleepUntil(page()->now + Millisecond);
        result = attempt();
    }
    return result == notYet ? ETIMEDOUT : result;
}

long virtualFutex(std::uint32_t* word, int operation, std::uint32_t expected, const timespec* timeout,
                  std::uint32_t bits)
{
    const int command = operation & FUTEX_CMD_MASK;
    std::int64_t deadline = Never;
    if (timeout && command == FUTEX_WAIT) {
        deadline = deadlineAfter(*timeout);
    } else if (timeout) {
        deadline = deadlineAt(operation & FUTEX_CLOCK_REALTIME ? CLOCK_REALTIME : CLOCK_MONOTONIC, *timeout);
    }
    const int result = waitOnFutex(word, operation & ~FUTEX_CLOCK_REALTIME, expected, deadline, bits);
    if (result < 0) {
        errno = -result;
        return -1;
    }
    return 0;
}

bool isWake(int command)
{
    return command != FUTEX_WAIT && command != FUTEX_WAIT_BITSET && command != FUTEX_LOCK_PI &&
           command != FUTEX_UNLOCK_PI && command != FUTEX_TRYLOCK_PI;
}

/// Only who has been called may be woken, and whom the kernel would choose nobody knows: so all are. It is allowed at
/// any time to wake a thread for nothing.
long wakeFutex(long* a)
{
    static const auto real = reinterpret_cast<decltype(&::syscall)>(following("syscall"));
    const int command = static_cast<int>(a[1]) & FUTEX_CMD_MASK;
    const bool isPlain = command == FUTEX_WAKE || command == FUTEX_WAKE_BITSET;
    const long sharing = a[1] & FUTEX_PRIVATE_FLAG;
    callWaitersOn(reinterpret_cast<void*>(a[0]));
    if (isPlain) {
        return real(SYS_futex, a[0], FUTEX_WAKE | sharing, INT_MAX, nullptr, nullptr, 0);
    }
    const long result = real(SYS_futex, a[0], a[1], a[2], a[3], a[4], a[5]);
    const int error = errno;
    callWaitersOn(reinterpret_cast<void*>(a[4])); // on which the others were put, or which it woke, too
    real(SYS_futex, a[0], FUTEX_WAKE | sharing, INT_MAX, nullptr, nullptr, 0);
    real(SYS_futex, a[4], FUTEX_WAKE | sharing, INT_MAX, nullptr, nullptr, 0);
    errno = error;
    return result;
}

} // namespace

extern "C" {

EXPORTED int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask)
{
    static const auto real = reinterpret_cast<decltype(&::ppoll)>(following("ppoll"));
    if (!page()) {
        return real(fds, count, timeout, mask);
    }
    const auto look = [=](const timespec* limit, const sigset_t* signals) {
        return real(fds, count, limit, signals);
    };
    return waitForDescriptors(deadlineOf(timeout), mask, look, [=] { hangOut(fds, count); });
}

EXPORTED int poll(pollfd* fds, nfds_t count, int milliseconds)
{
    static const auto real = reinterpret_cast<decltype(&::poll)>(following("poll"));
    if (!page()) {
        return real(fds, count, milliseconds);
    }
    const timespec limit = asTimespec(milliseconds < 0 ? 0 : milliseconds * Millisecond);
    return ppoll(fds, count, milliseconds < 0 ? nullptr : &limit, nullptr);
}

EXPORTED int __poll_chk(pollfd* fds, nfds_t count, int milliseconds, size_t)
{
    return poll(fds, count, milliseconds);
}

EXPORTED int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask, size_t)
{
    return ppoll(fds, count, timeout, mask);
}

EXPORTED int pselect(int count, fd_set* readable, fd_set* writable, fd_set* failed, const timespec* timeout,
                     const sigset_t* mask)
{
    static const auto real = reinterpret_cast<decltype(&::pselect)>(following("pselect"));
    if (!page()) {
        return real(count, readable, writable, failed, timeout, mask);
    }
    fd_set* const sets[] = {readable, writable, failed};
    fd_set wanted[3];
    for (int each = 0; each < 3; ++each) {
        if (sets[each]) {
            wanted[each] = *sets[each];
        }
    }
    const auto look = [&](const timespec* limit, const sigset_t* signals) {
        for (int each = 0; each < 3; ++each) {
            if (sets[each]) {
                *sets[each] = wanted[each];
            }
        }
        return real(count, readable, writable, failed, limit, signals);
    };
    const int found = waitForDescriptors(deadlineOf(timeout), mask, look, [] { Wait::hide(true); });
    Wait::hide(false);
    return found;
}

EXPORTED int select(int count, fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout)
{
    static const auto real = reinterpret_cast<decltype(&::select)>(following("select"));
    if (!page()) {
        return real(count, readable, writable, failed, timeout);
    }
    const timespec limit = timeout ? timespec{timeout->tv_sec, timeout->tv_usec * 1000} : NoTime;
    return pselect(count, readable, writable, failed, timeout ? &limit : nullptr, nullptr);
}

// --- time alone ------------------------------------------------------------------------------------------------------

EXPORTED int clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* rest)
{
    static const auto real = reinterpret_cast<decltype(&::clock_nanosleep)>(following("clock_nanosleep"));
    if (!page()) {
        return real(clock, flags, wanted, rest);
    }
    const std::int64_t deadline = flags & TIMER_ABSTIME ? deadlineAt(clock, *wanted) : deadlineAfter(*wanted);
    if (sleepUntil(deadline)) {
        return 0;
    }
    if (rest && !(flags & TIMER_ABSTIME)) {
        *rest = asTimespec(isOver(deadline) ? 0 : deadline - page()->now);
    }
    return EINTR;
}

EXPORTED int nanosleep(const timespec* wanted, timespec* rest)
{
    static const auto real = reinterpret_cast<decltype(&::nanosleep)>(following("nanosleep"));
    if (!page()) {
        return real(wanted, rest);
    }
    errno = clock_nanosleep(CLOCK_MONOTONIC, 0, wanted, rest);
    return errno ? -1 : 0;
}

EXPORTED int usleep(useconds_t microseconds)
{
    const timespec wanted = asTimespec(microseconds * std::int64_t{1000});
    return nanosleep(&wanted, nullptr);
}

EXPORTED unsigned int sleep(unsigned int seconds)
{
    timespec rest = {};
    const timespec wanted{static_cast<time_t>(seconds), 0};
    return nanosleep(&wanted, &rest) == 0 ? 0 : static_cast<unsigned int>(rest.tv_sec);
}

// --- futexes and what is made of them --------------------------------------------------------------------------------

EXPORTED long syscall(long number, ...) noexcept
{
    static const auto real = reinterpret_cast<decltype(&::syscall)>(following("syscall"));
    va_list list;
    va_start(list, number);
    long a[6];
    for (long& argument : a) {
        argument = va_arg(list, long);
    }
    va_end(list);
    Page* shared = page();
    const int command = static_cast<int>(a[1]) & FUTEX_CMD_MASK;
    if (shared && number == SYS_futex && (command == FUTEX_WAIT || command == FUTEX_WAIT_BITSET)) {
        return virtualFutex(reinterpret_cast<std::uint32_t*>(a[0]), static_cast<int>(a[1]),
                            static_cast<std::uint32_t>(a[2]), reinterpret_cast<const timespec*>(a[3]),
                            command == FUTEX_WAIT ? FUTEX_BITSET_MATCH_ANY : static_cast<std::uint32_t>(a[5]));
    }
    if (shared && number == SYS_futex && isWake(command)) {
        return wakeFutex(a);
    }
    if (shared && (number == SYS_clone || number == SYS_clone3)) {
        ++shared->children;
    }
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

EXPORTED int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* time)
{
    static const auto real = reinterpret_cast<decltype(&::sem_clockwait)>(following("sem_clockwait"));
    if (!page()) {
        return real(semaphore, clock, time);
    }
    const int result =
        tryUntil(deadlineAt(clock, *time), EAGAIN, [=] { return sem_trywait(semaphore) == 0 ? 0 : errno; });
    errno = result;
    return result ? -1 : 0;
}

EXPORTED int sem_timedwait(sem_t* semaphore, const timespec* time)
{
    static const auto real = reinterpret_cast<decltype(&::sem_timedwait)>(following("sem_timedwait"));
    return page() ? sem_clockwait(semaphore, CLOCK_REALTIME, time) : real(semaphore, time);
}

EXPORTED int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* time) noexcept
{
    static const auto real =
        reinterpret_cast<decltype(&::pthread_mutex_clocklock)>(following("pthread_mutex_clocklock"));
    if (!page()) {
        return real(mutex, clock, time);
    }
    return tryUntil(deadlineAt(clock, *time), EBUSY, [=] { return pthread_mutex_trylock(mutex); });
}

EXPORTED int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* time) noexcept
{
    static const auto real =
        reinterpret_cast<decltype(&::pthread_mutex_timedlock)>(following("pthread_mutex_timedlock"));
    return page() ? pthread_mutex_clocklock(mutex, CLOCK_REALTIME, time) : real(mutex, time);
}

// --- the serial line, read without any limit -------------------------------------------------------------------------

EXPORTED ssize_t read(int fd, void* buffer, size_t size)
{
    static const auto real = reinterpret_cast<decltype(&::read)>(following("read"));
    if (!page() || !isSerialLine(fd)) {
        return real(fd, buffer, size);
    }
    const Wait wait(Reading);
    const ssize_t count = real(fd, buffer, size);
    page()->lineRead += count > 0 ? count : 0;
    return count;
}

EXPORTED ssize_t write(int fd, const void* buffer, size_t size)
{
    static const auto real = reinterpret_cast<decltype(&::write)>(following("write"));
    if (!page() || !isSerialLine(fd)) {
        return real(fd, buffer, size);
    }
    const ssize_t count = real(fd, buffer, size);
    page()->lineWritten += count > 0 ? count : 0;
    return count;
}

} // extern "C"
