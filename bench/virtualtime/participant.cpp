#include "participant.h"

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

void onWake(int)
{
    called = true;
}

void callConductor(std::atomic<std::uint32_t>& word)
{
    syscall(SYS_futex, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

void changeMask(int how, int signal)
{
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    pthread_sigmask(how, &one, nullptr);
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
        std::uint32_t state = Free;
        if (slot.state.compare_exchange_strong(state, Running)) {
            slot.thread = 0;
            ++slot.turns;
            ++page()->running;
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

/// Whoever waits for this thread's end is running from now on.
void releaseSlot(int index)
{
    Page* shared = page();
    for (Slot& other : shared->slots) {
        std::uint32_t state = Waiting;
        if (other.joins == index + 1 && other.state.compare_exchange_strong(state, Running)) {
            ++shared->running;
        }
    }
    slotOfThread = -1;
    shared->slots[index].state = Free;
    if (--shared->running == 0 && shared->conductorWaits) {
        callConductor(shared->running);
    }
}

int ownSlot()
{
    return slotOfThread;
}

Wait::Wait(std::int64_t deadline, int joinedSlot)
    : m_slot(slotOfThread)
{
    called = false;
    restsNow();
    if (m_slot < 0) {
        return;
    }
    Page* shared = page();
    Slot& slot = shared->slots[m_slot];
    slot.deadline = deadline;
    slot.joins = joinedSlot + 1;
    slot.state = Waiting;
    if (--shared->running == 0 && shared->conductorWaits) {
        callConductor(shared->running);
    }
}

Wait::~Wait()
{
    if (m_slot < 0) {
        return;
    }
    Slot& slot = page()->slots[m_slot];
    std::uint32_t state = Waiting;
    if (slot.state.compare_exchange_strong(state, Running)) {
        ++page()->running;
    }
    slot.joins = 0;
    ++slot.turns;
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
    sigset_t mask;
    if (wanted) {
        mask = *wanted;
    } else {
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    }
    sigdelset(&mask, page()->wakeSignal);
    return mask;
}

bool sleepUntil(std::int64_t deadline)
{
    static const auto real = reinterpret_cast<decltype(&::ppoll)>(following("ppoll"));
    const sigset_t mask = waitMask(nullptr);
    while (!isOver(deadline)) {
        const Wait wait(deadline);
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
        const Wait wait(deadline);
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
