#include "threads.h"

#include "schedulingattributes.h"

#include <QString>
#include <QThread>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <memory>

#include <link.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Threads {

namespace {

/// Far more than the deepest calls take. The C library's default of 8 MiB would be locked in memory for each thread.
constexpr unsigned int StackBytes = 512 * 1024;

/// What a thread on the ways to the relay may need at a stroke beside what it has used so far: on its stack, and for
/// packets, calls that wait and lines of the log. The C library keeps twice as much of what is given back to it.
constexpr std::size_t ReserveBytes = 64 * 1024;

constexpr pid_t CallingThread = 0;
constexpr quint64 ResetOnFork = 1; ///< the kernel's SCHED_FLAG_RESET_ON_FORK

/// Whose code lies on the ways to the relay. The program itself has no name here.
bool isOnTheWay(const char* object)
{
    constexpr std::array<const char*, 4> libraries = {"/libQt5Core.so", "/libQt5Network.so", "/libstdc++.so",
                                                      "/libc.so"};
    return *object == '\0' || std::any_of(libraries.begin(), libraries.end(), [object](const char* library) {
        return std::strstr(object, library) != nullptr;
    });
}

int lockCodeAndData(dl_phdr_info* object, size_t, void*)
{
    for (int i = 0; i < object->dlpi_phnum && isOnTheWay(object->dlpi_name); ++i) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && (segment.p_flags & (PF_X | PF_W)) != 0) {
            // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader tells addresses as numbers
            mlock(reinterpret_cast<const void*>(object->dlpi_addr + segment.p_vaddr), segment.p_memsz);
        }
    }
    return 0; // go on with the next
}

/// Writes to each page: what was only reserved becomes memory.
void touch(char* memory, std::size_t size)
{
    constexpr std::size_t SmallestPage = 4096;
    for (std::size_t i = 0; i < size; i += SmallestPage) {
        static_cast<volatile char*>(memory)[i] = 0;
    }
}

__attribute__((noinline)) void touchStack()
{
    std::array<char, ReserveBytes> reserve;
    touch(reserve.data(), reserve.size());
}

void touchHeap()
{
    const std::unique_ptr<char[]> reserve(new char[ReserveBytes]);
    touch(reserve.get(), ReserveBytes);
}

/// Where memory is used up, the kernel lets a thread that needs a new page wait until it has ended some program.
bool isToHaveReserves(Role role)
{
    return role == Role::Relay || role == Role::UartReader || role == Role::ServiceLayer || role == Role::Hub;
}

/// Niceness and slice are set by one call, which takes both. A kernel without slices ignores that part.
bool setShare(const Claim& claim)
{
    SchedulingAttributes attributes;
    attributes.policy = SCHED_OTHER;
    attributes.flags = ResetOnFork;
    attributes.niceness = claim.niceness;
    attributes.runtime = static_cast<quint64>(std::chrono::nanoseconds(claim.slice).count());
    return syscall(SYS_sched_setattr, CallingThread, &attributes, 0U) == 0;
}

bool setRealTime(int priority)
{
    sched_param parameters = {};
    parameters.sched_priority = priority;
    return sched_setscheduler(CallingThread, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameters) == 0;
}

} // namespace

QThread* make(const char* name)
{
    auto* const thread = new QThread;
    thread->setObjectName(QString::fromLatin1(name));
    thread->setStackSize(StackBytes);
    return thread;
}

bool claimPriority(Role role)
{
    if (isToHaveReserves(role)) {
        touchStack();
        touchHeap();
    }
    const Claim claim = claimOf(role);
    return claim.realTimePriority > 0 ? setRealTime(claim.realTimePriority) : setShare(claim);
}

bool lockMemory()
{
    // Page by page as they are used, now and later: whole stacks and tables that nobody reads would only cost memory.
    // Code and its data are the exception. The way to an open relay may not have been gone yet, and must wait neither
    // for a disk nor for memory.
    const bool isLocked = mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT) == 0;
    if (isLocked) {
        dl_iterate_phdr(lockCodeAndData, nullptr);
    }
    return isLocked;
}

} // namespace Threads
