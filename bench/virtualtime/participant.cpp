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

constexpr time_t Age = 1000000000; // seconds; longer ones are for ever, and must not overflow

std::atomic<Page*> sharedPage{nullptr};
std::atomic<int> attachState{0}; // 0 not yet, 1 under way, 2 done

thread_local int slotOfThread = -1;

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
    action.sa_handler = noteCall;
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
    if (duration.tv_sec > Age) {
        return Never;
    }
    const std::int64_t length = nanoseconds(duration);
    return page()->now + (length > 0 ? length : 0);
}

std::int64_t deadlineAt(clockid_t clock, const timespec& time)
{
    const timespec base = asTimespec(baseOf(clock));
    if (time.tv_sec > base.tv_sec + Age) {
        return Never;
    }
    return deadlineAfter(asTimespec((time.tv_sec - base.tv_sec) * Second + time.tv_nsec - base.tv_nsec - page()->now));
}

bool isOver(std::int64_t deadline)
{
    return page()->now >= deadline;
}

void changeMask(int how, int signal)
{
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    static const auto real = reinterpret_cast<decltype(&::pthread_sigmask)>(following("pthread_sigmask"));
    real(how, &one, nullptr);
}

void lessRunning(Page& shared)
{
    static const auto real = reinterpret_cast<decltype(&::syscall)>(following("syscall"));
    if (--shared.running == 0 && shared.conductorWaits) {
        real(SYS_futex, &shared.running, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    }
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

} // namespace virtualtime

__attribute__((constructor)) static void takePart()
{
    virtualtime::page();
}
