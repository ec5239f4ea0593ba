#include "participant.h"

#include "descriptors.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace virtualtime {
namespace {

/// So many questions in a row, without any wait between them, are a wait in themselves.
constexpr int SpinningQuestions = 10000;

std::atomic<Page*> sharedPage{nullptr};
std::atomic<int> attachState{0}; // 0 not yet, 1 under way, 2 done

thread_local int slotOfThread = -1;
thread_local bool called = false;
thread_local int questions = 0;
thread_local sigset_t ownMask;
thread_local bool ownMaskIsKnown = false;

void onWake(int)
{
    called = true;
}

/// One less runs or will.
void lessRunning(Page& shared)
{
    static const auto real = reinterpret_cast<decltype(&::syscall)>(following("syscall"));
    if (--shared.running == 0 && shared.conductorWaits) {
        real(SYS_futex, &shared.running, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    }
}

void changeMask(int how, int signal)
{
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    static const auto real = reinterpret_cast<decltype(&::pthread_sigmask)>(following("pthread_sigmask"));
    real(how, &one, nullptr);
}

Page* map(const char* path)
{
    const int file = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
    if (file < 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::syscall(SYS_close, file);
    if (memory == MAP_FAILED || static_cast<Page*>(memory)->version != PageVersion) {
        return nullptr;
    }
    return static_cast<Page*>(memory);
}

/// The first thread takes part, and nobody whom this process starts.
void attach()
{
    const char* path = getenv(PageVariable);
    Page* found = path ? map(path) : nullptr;
    if (!found) {
        return;
    }
    unsetenv(PageVariable);
    unsetenv("LD_PRELOAD");
    struct sigaction action = {};
    action.sa_handler = onWake;
    sigfillset(&action.sa_mask);
    sigaction(found->wakeSignal, &action, nullptr);
    changeMask(SIG_BLOCK, found->wakeSignal);
    sharedPage = found;
    found->board = makeBoard();
    adoptSlot(reserveSlot());
    found->process = getpid();
}

std::int64_t baseOf(clockid_t clock)
{
    const bool wall = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE || clock == CLOCK_TAI;
    return wall ? sharedPage.load()->realtimeBase : sharedPage.load()->monotonicBase;
}

} // namespace

Page* page()
{
    if (attachState == 2) {
        return sharedPage;
    }
    int untouched = 0;
    if (attachState.compare_exchange_strong(untouched, 1)) {
        attach();
        attachState = 2;
    }
    return sharedPage;
}

void* following(const char* name)
{
    void* function = dlsym(RTLD_NEXT, name);
    if (!function) {
        abort();
    }
    return function;
}

std::int64_t nanoseconds(const timespec& time)
{
    return time.tv_sec * Second + time.tv_nsec;
}

timespec asTimespec(std::int64_t nanoseconds)
{
    return {static_cast<time_t>(nanoseconds / Second), static_cast<long>(nanoseconds % Second)};
}

std::int64_t deadlineAfter(const timespec& duration)
{
    constexpr time_t Age = 1000000000; // seconds; longer ones are for ever, and must not overflow
    if (duration.tv_sec > Age) {
        return Never;
    }
    const std::int64_t length = nanoseconds(duration);
    return page()->now + (length > 0 ? length : 0);
}

std::int64_t deadlineAt(clockid_t clock, const timespec& time)
{
    const timespec base = asTimespec(baseOf(clock));
    return deadlineAfter(asTimespec((time.tv_sec - base.tv_sec) * Second + time.tv_nsec - base.tv_nsec - page()->now));
}

bool isOver(std::int64_t deadline)
{
    return page()->now >= deadline;
}

int reserveSlot()
{
    for (int index = 0; index < MaxThreads; ++index) {
        Slot& slot = page()->slots[index];
        std::uint32_t state = slot.state;
        if (doing(state) == Free && slot.state.compare_exchange_strong(state, nextTurn(state, Running))) {
            slot.thread = 0;
            ++page()->running;
            std::int32_t used = page()->slotsUsed;
            while (used <= index && !page()->slotsUsed.compare_exchange_weak(used, index + 1)) {
            }
            return index;
        }
    }
    return -1;
}

void adoptSlot(int index)
{
    slotOfThread = index;
    if (index >= 0) {
        page()->slots[index].thread = static_cast<std::int32_t>(::syscall(SYS_gettid));
    }
}

/// Whoever waits for the end of the slot's thread is running from now on.
void freeSlot(int index)
{
    Page* shared = page();
    for (int other = 0; other < shared->slotsUsed; ++other) {
        const std::uint32_t state = shared->slots[other].state;
        if (rests(state) && shared->slots[other].joins == index + 1) {
            callThread(shared->slots[other], state);
        }
    }
    shared->slots[index].state = nextTurn(shared->slots[index].state, Free);
    lessRunning(*shared);
}

void releaseSlot(int index)
{
    forgetDescriptors();
    slotOfThread = -1;
    freeSlot(index);
}

int ownSlot()
{
    return slotOfThread;
}

void callThread(Slot& slot, std::uint32_t state)
{
    ++page()->running; // first, lest the thread itself counts down what nobody has counted up
    if (!slot.state.compare_exchange_strong(state, state | Called)) {
        lessRunning(*page());
    }
}

void callWaitersOn(const void* word)
{
    for (int index = 0; index < page()->slotsUsed; ++index) {
        Slot& slot = page()->slots[index];
        std::uint32_t state = slot.state;
        if (slot.word != reinterpret_cast<std::uint64_t>(word)) {
            continue;
        }
        if (rests(state)) {
            callThread(slot, state);
        } else if (doing(state) == Running) {
            slot.state.compare_exchange_strong(state, state | Called); // it does not lie down then
        }
    }
}

Wait::Wait(Doing what, std::int64_t deadline, int joinedSlot)
    : m_slot(slotOfThread)
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
    : m_slot(slotOfThread)
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
    if (slotOfThread >= 0) {
        page()->slots[slotOfThread].hidden = hidden;
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

__attribute__((constructor)) static void takePart()
{
    virtualtime::page();
}
