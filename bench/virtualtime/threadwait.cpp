#include "participant.h"

#include <cerrno>
#include <linux/futex.h>
#include <poll.h>
#include <sys/syscall.h>

namespace virtualtime {
namespace {

/// So many questions in a row, without any wait between them, are a wait in themselves.
constexpr int SpinningQuestions = 10000;

thread_local bool called = false;
thread_local int questions = 0;
thread_local sigset_t ownMask;
thread_local bool ownMaskIsKnown = false;

} // namespace

void noteCall(int)
{
    called = true;
}

Wait::Wait(Doing what, std::int64_t deadline, int joinedSlot)
    : m_slot(ownSlot())
{
    if (m_slot >= 0) {
        Slot& slot = page()->slots[m_slot];
        slot.word = 0;
        slot.joins = joinedSlot + 1;
        begin(deadline);
        slot.state = nextTurn(slot.state, what);
        lessRunning(*page());
    }
}

Wait::Wait(std::int64_t deadline, const std::uint32_t* word, std::uint32_t expected)
    : m_slot(ownSlot())
{
    if (m_slot < 0) {
        return;
    }
    Slot& slot = page()->slots[m_slot];
    std::uint32_t state = slot.state & ~Called;
    slot.state = state;
    slot.word = reinterpret_cast<std::uint64_t>(word); // from here on a waker sees this thread, or this thread the wake
    slot.joins = 0;
    begin(deadline);
    if (__atomic_load_n(word, __ATOMIC_SEQ_CST) == expected &&
        slot.state.compare_exchange_strong(state, nextTurn(state, Waiting))) {
        lessRunning(*page());
    } else {
        slot.word = 0;
        slot.state = state & ~Called;
        m_slot = -1;
        m_refused = true;
    }
}

void Wait::begin(std::int64_t deadline)
{
    called = false;
    restsNow();
    page()->slots[m_slot].deadline = deadline;
}

Wait::~Wait()
{
    if (m_slot < 0) {
        return;
    }
    Slot& slot = page()->slots[m_slot];
    slot.word = 0;
    const std::uint32_t old = slot.state.exchange(nextTurn(slot.state, Running));
    if (!(old & Called)) {
        ++page()->running;
    }
}

void Wait::hide(bool hidden)
{
    if (ownSlot() >= 0) {
        page()->slots[ownSlot()].hidden = hidden;
    }
}

bool Wait::wasCalled()
{
    return called;
}

bool spins()
{
    if (++questions < SpinningQuestions) {
        return false;
    }
    questions = 0;
    return true;
}

void restsNow()
{
    questions = 0;
}

sigset_t waitMask(const sigset_t* wanted)
{
    if (!wanted && !ownMaskIsKnown) {
        pthread_sigmask(SIG_SETMASK, nullptr, &ownMask);
        ownMaskIsKnown = true;
    }
    sigset_t mask = wanted ? *wanted : ownMask;
    sigdelset(&mask, page()->wakeSignal);
    return mask;
}

void forgetMask()
{
    ownMaskIsKnown = false;
}

bool sleepUntil(std::int64_t deadline)
{
    static const auto real = reinterpret_cast<decltype(&::ppoll)>(following("ppoll"));
    const sigset_t mask = waitMask(nullptr);
    while (!isOver(deadline)) {
        const Wait wait(Waiting, deadline);
        real(nullptr, 0, nullptr, &mask);
        if (!Wait::wasCalled()) {
            return false;
        }
    }
    return true;
}

int waitOnFutex(std::uint32_t* word, int operation, std::uint32_t expected, std::int64_t deadline, std::uint32_t bits)
{
    static const auto real = reinterpret_cast<decltype(&::syscall)>(following("syscall"));
    for (;;) {
        if (isOver(deadline)) {
            return __atomic_load_n(word, __ATOMIC_SEQ_CST) == expected ? -ETIMEDOUT : -EAGAIN;
        }
        const Wait wait(deadline, word, expected);
        if (wait.refused()) {
            return -EAGAIN;
        }
        changeMask(SIG_UNBLOCK, page()->wakeSignal);
        const long result = real(SYS_futex, word, operation, expected, nullptr, nullptr, bits);
        const int error = result < 0 ? errno : 0;
        changeMask(SIG_BLOCK, page()->wakeSignal);
        if (error != EINTR || !Wait::wasCalled()) {
            return -error;
        }
    }
}

} // namespace virtualtime
