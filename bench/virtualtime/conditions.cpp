// Condition variables, whole: the system's cannot be told that time has passed. Ours is a number that every signal
// raises, in the memory of the system's type; all zero, as a static one begins, it goes by the wall clock.
#include "participant.h"

#include <cerrno>
#include <climits>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#define EXPORTED __attribute__((visibility("default")))

using namespace virtualtime;

namespace {

struct Condition
{
    std::atomic<std::uint32_t> signals;
    std::atomic<std::uint32_t> waiters;
    clockid_t clock;
};

static_assert(sizeof(Condition) <= sizeof(pthread_cond_t), "it lies in the memory of the system's type");

Condition& from(pthread_cond_t* memory)
{
    return *reinterpret_cast<Condition*>(memory);
}

int wake(pthread_cond_t* memory, int count)
{
    Condition& condition = from(memory);
    ++condition.signals;
    if (condition.waiters) {
        syscall(SYS_futex, &condition.signals, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
    }
    return 0;
}

int waitUntil(pthread_cond_t* memory, pthread_mutex_t* mutex, std::int64_t deadline)
{
    Condition& condition = from(memory);
    const std::uint32_t before = condition.signals;
    ++condition.waiters;
    pthread_mutex_unlock(mutex);
    const int result = waitOnFutex(reinterpret_cast<std::uint32_t*>(&condition.signals), FUTEX_WAIT_BITSET_PRIVATE,
                                   before, deadline, FUTEX_BITSET_MATCH_ANY);
    --condition.waiters;
    pthread_mutex_lock(mutex);
    return result == -ETIMEDOUT ? ETIMEDOUT : 0;
}

} // namespace

extern "C" {

EXPORTED int pthread_cond_init(pthread_cond_t* memory, const pthread_condattr_t* attributes) noexcept
{
    static const auto real = reinterpret_cast<decltype(&::pthread_cond_init)>(following("pthread_cond_init"));
    if (!page()) {
        return real(memory, attributes);
    }
    *memory = PTHREAD_COND_INITIALIZER;
    return attributes ? pthread_condattr_getclock(attributes, &from(memory).clock) : 0;
}

EXPORTED int pthread_cond_destroy(pthread_cond_t* memory) noexcept
{
    static const auto real = reinterpret_cast<decltype(&::pthread_cond_destroy)>(following("pthread_cond_destroy"));
    if (!page()) {
        return real(memory);
    }
    while (from(memory).waiters) {
        sched_yield(); // they have been woken, and only have to leave
    }
    return 0;
}

EXPORTED int pthread_cond_signal(pthread_cond_t* memory) noexcept
{
    static const auto real = reinterpret_cast<decltype(&::pthread_cond_signal)>(following("pthread_cond_signal"));
    return page() ? wake(memory, 1) : real(memory);
}

EXPORTED int pthread_cond_broadcast(pthread_cond_t* memory) noexcept
{
    static const auto real = reinterpret_cast<decltype(&::pthread_cond_broadcast)>(following("pthread_cond_broadcast"));
    return page() ? wake(memory, INT_MAX) : real(memory);
}

EXPORTED int pthread_cond_wait(pthread_cond_t* memory, pthread_mutex_t* mutex)
{
    static const auto real = reinterpret_cast<decltype(&::pthread_cond_wait)>(following("pthread_cond_wait"));
    return page() ? waitUntil(memory, mutex, Never) : real(memory, mutex);
}

EXPORTED int pthread_cond_timedwait(pthread_cond_t* memory, pthread_mutex_t* mutex, const timespec* time)
{
    static const auto real = reinterpret_cast<decltype(&::pthread_cond_timedwait)>(following("pthread_cond_timedwait"));
    return page() ? waitUntil(memory, mutex, deadlineAt(from(memory).clock, *time)) : real(memory, mutex, time);
}

EXPORTED int pthread_cond_clockwait(pthread_cond_t* memory, pthread_mutex_t* mutex, clockid_t clock,
                                    const timespec* time)
{
    static const auto real = reinterpret_cast<decltype(&::pthread_cond_clockwait)>(following("pthread_cond_clockwait"));
    return page() ? waitUntil(memory, mutex, deadlineAt(clock, *time)) : real(memory, mutex, clock, time);
}

} // extern "C"
