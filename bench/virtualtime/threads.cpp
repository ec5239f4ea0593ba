// Threads and processes that begin and end.
#include "participant.h"

#include <csignal>
#include <pthread.h>
#include <unistd.h>

#define EXPORTED __attribute__((visibility("default")))

using namespace virtualtime;

namespace {

struct Beginning
{
    void* (*function)(void*);
    void* argument;
    int slot;
};

/// Gives the slot back however the thread ends.
class Membership
{
public:
    ~Membership()
    {
        if (m_slot >= 0) {
            releaseSlot(m_slot);
        }
    }
    void begin(int slot)
    {
        m_slot = slot;
        adoptSlot(slot);
    }

private:
    int m_slot = -1;
};

thread_local Membership membership;
std::atomic<pthread_t> threadOfSlot[MaxThreads];

void* begin(void* memory)
{
    const Beginning beginning = *static_cast<Beginning*>(memory);
    delete static_cast<Beginning*>(memory);
    if (beginning.slot >= 0) {
        threadOfSlot[beginning.slot] = pthread_self();
        membership.begin(beginning.slot);
    }
    return beginning.function(beginning.argument);
}

int slotOf(pthread_t thread)
{
    for (int index = 0; index < MaxThreads; ++index) {
        if (doing(page()->slots[index].state) != Free && threadOfSlot[index] == thread) {
            return index;
        }
    }
    return -1;
}

} // namespace

extern "C" {

EXPORTED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                            void* argument) noexcept
{
    static const auto real = reinterpret_cast<decltype(&::pthread_create)>(following("pthread_create"));
    if (!page()) {
        return real(thread, attributes, function, argument);
    }
    auto* beginning = new Beginning{function, argument, reserveSlot()};
    const int slot = beginning->slot;
    const int result = real(thread, attributes, begin, beginning);
    if (result) {
        delete beginning;
        if (slot >= 0) {
            freeSlot(slot);
        }
    }
    return result;
}

EXPORTED int pthread_join(pthread_t thread, void** result)
{
    static const auto real = reinterpret_cast<decltype(&::pthread_join)>(following("pthread_join"));
    const int joined = page() ? slotOf(thread) : -1;
    if (joined < 0) {
        return real(thread, result);
    }
    const Wait wait(Waiting, Never, joined);
    return real(thread, result);
}

EXPORTED int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) noexcept
{
    static const auto real = reinterpret_cast<decltype(&::pthread_sigmask)>(following("pthread_sigmask"));
    forgetMask();
    return real(how, set, old);
}

EXPORTED int sigprocmask(int how, const sigset_t* set, sigset_t* old) noexcept
{
    static const auto real = reinterpret_cast<decltype(&::sigprocmask)>(following("sigprocmask"));
    forgetMask();
    return real(how, set, old);
}

EXPORTED pid_t fork() noexcept
{
    static const auto real = reinterpret_cast<decltype(&::fork)>(following("fork"));
    if (page()) {
        ++page()->children;
    }
    return real();
}

} // extern "C"
