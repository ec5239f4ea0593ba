#include "conductor.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <linux/futex.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace virtualtime {
namespace {

constexpr std::int64_t Microsecond = 1000;
/// A thread that waits in a way that this library does not know must have rested for so long, as all others must.
constexpr std::int64_t UnknownWait = 200000 * Microsecond;
/// A process of which one thread has gone without leave is given so long to end as a whole.
constexpr std::int64_t Ending = 2000000 * Microsecond;
/// For so long it is worth while to stay awake for something that the kernel is just doing.
constexpr std::int64_t SoonDone = 50 * Microsecond;

/// The real clock: this process takes no part, and the library in front of its own functions lets everything pass.
std::int64_t realNow()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1000000000} + now.tv_nsec;
}

void pause(std::int64_t since)
{
    const timespec moment{0, 20 * Microsecond};
    if (realNow() - since < SoonDone) {
        sched_yield();
    } else {
        nanosleep(&moment, nullptr);
    }
}

/// The server's board (see descriptors.h), as a descriptor of this process; -1 where the system refuses it.
int borrowBoard(int process, int number)
{
    const int handle = number < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    const int board = handle < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_getfd, handle, number, 0));
    if (handle >= 0) {
        close(handle);
    }
    return board;
}

} // namespace

Conductor::Conductor(Page* page, int process)
    : m_page(*page)
    , m_tasks(process)
{}

Conductor::~Conductor()
{
    if (m_board >= 0) {
        close(m_board);
    }
}

Verdict Conductor::settles(std::int64_t microseconds, std::int64_t sent, std::int64_t received)
{
    const std::int64_t began = realNow();
    if (m_page.process == 0 || began < m_endsUntil) {
        pause(0);
        return Verdict::Busy; // the bench will hear of its end
    }
    const std::int64_t until = began + microseconds * Microsecond;
    Verdict verdict = look(sent, received);
    while (!hasSettled(verdict) && realNow() < until) {
        if (m_page.running == 0 || !waitForRest(until)) {
            pause(began);
        }
        verdict = look(sent, received);
    }
    if (verdict != Verdict::Busy) {
        m_busySince = 0;
        return verdict;
    }
    return m_page.running != 0 && restsUnknown() ? Verdict::Settled : Verdict::Busy;
}

std::int64_t Conductor::nextDeadline() const
{
    std::int64_t next = Never;
    for (int index = 0; index < m_page.slotsUsed && !m_stopped; ++index) {
        const Slot& slot = m_page.slots[index];
        const std::int64_t deadline = slot.deadline;
        if (rests(slot.state) && deadline < next) {
            next = deadline;
        }
    }
    return next;
}

void Conductor::advance(std::int64_t now)
{
    m_page.now = now;
    for (int index = 0; index < m_page.slotsUsed; ++index) {
        Slot& slot = m_page.slots[index];
        const std::uint32_t state = slot.state;
        if (rests(state) && slot.deadline <= now && callThread(slot, state)) {
            wake(slot);
        }
    }
}

Verdict Conductor::look(std::int64_t sent, std::int64_t received)
{
    const bool toServer = m_page.lineRead < sent;
    const std::uint64_t before = turns();
    if (toServer) {
        callReader();
    }
    if (m_page.running != 0 || !allRest() || callReady() || !othersSleep() || toServer || turns() != before) {
        return m_page.lineRead < sent ? Verdict::ToServer : Verdict::Busy;
    }
    if (m_endsUntil > realNow()) {
        return Verdict::Busy;
    }
    m_closely = m_closely && m_stopped;
    if (!noChildWorks()) {
        return Verdict::ChildWorks;
    }
    return received >= 0 && received < m_page.lineWritten ? Verdict::FromServer : Verdict::Settled;
}

std::uint64_t Conductor::turns() const
{
    std::uint64_t sum = 0;
    for (int index = 0; index < m_page.slotsUsed; ++index) {
        sum += m_page.slots[index].state;
    }
    return sum;
}

bool Conductor::allRest() const
{
    for (int index = 0; index < m_page.slotsUsed; ++index) {
        const Slot& slot = m_page.slots[index];
        const std::uint32_t state = slot.state;
        const int joins = slot.joins;
        if (doing(state) != Free && (!rests(state) || (joins && doing(m_page.slots[joins - 1].state) == Free))) {
            return false;
        }
    }
    return true;
}

void Conductor::wake(const Slot& slot)
{
    syscall(SYS_tgkill, m_tasks.process(), slot.thread.load(), m_page.wakeSignal);
}

bool Conductor::callThread(Slot& slot, std::uint32_t state)
{
    ++m_page.running;
    if (slot.state.compare_exchange_strong(state, state | Called)) {
        return true;
    }
    --m_page.running;
    return false;
}

void Conductor::callReader()
{
    for (int index = 0; index < m_page.slotsUsed; ++index) {
        Slot& slot = m_page.slots[index];
        const std::uint32_t state = slot.state;
        if (doing(state) == Reading && rests(state)) {
            callThread(slot, state);
        }
    }
}

bool Conductor::callReady()
{
    if (m_board == NotYet) {
        m_board = borrowBoard(m_tasks.process(), m_page.board);
    }
    if (m_stopped) {
        return false;
    }
    constexpr int Most = 64;
    epoll_event ready[Most];
    const int count = m_board < 0 ? 0 : epoll_wait(m_board, ready, Most, 0);
    bool called = false;
    for (int index = 0; index < count; ++index) {
        Slot& slot = m_page.slots[ready[index].data.u32 % MaxThreads];
        const std::uint32_t state = slot.state;
        called = (doing(state) == Polling && rests(state) && callThread(slot, state)) || called;
    }
    return called;
}

bool Conductor::othersSleep()
{
    const bool everybody = m_closely || m_board < 0;
    if (everybody) {
        m_stopped = false;
    }
    for (int index = 0; index < m_page.slotsUsed; ++index) {
        Slot& slot = m_page.slots[index];
        if (doing(slot.state) != Free && (everybody || slot.hidden) && !sleeps(index)) {
            return false;
        }
    }
    return true;
}

bool Conductor::waitForRest(std::int64_t until)
{
    m_page.conductorWaits = 1;
    std::int64_t left = until - realNow();
    for (std::uint32_t running = m_page.running; running && left > 0; running = m_page.running) {
        const timespec limit{0, static_cast<long>(left)};
        syscall(SYS_futex, &m_page.running, FUTEX_WAIT, running, &limit, nullptr, 0);
        left = until - realNow();
    }
    m_page.conductorWaits = 0;
    return m_page.running == 0;
}

bool Conductor::sleeps(int index)
{
    Slot& slot = m_page.slots[index];
    const int thread = slot.thread;
    const TaskState state = thread ? m_tasks.of(index, thread) : TaskState::Busy;
    if (state == TaskState::Gone && slot.thread == thread) {
        removeEnded(slot);
    }
    m_stopped = m_stopped || state == TaskState::Stopped;
    return state != TaskState::Busy;
}

void Conductor::removeEnded(Slot& slot)
{
    m_endsUntil = realNow() + Ending;
    const std::uint32_t state = slot.state.exchange(Free);
    if (doing(state) != Free && !rests(state)) {
        --m_page.running;
    }
}

bool Conductor::restsUnknown()
{
    const std::uint64_t now = turns();
    if (!m_tasks.allRest() || now != m_turnsThen || m_busySince == 0) {
        m_turnsThen = now;
        m_busySince = realNow();
        return false;
    }
    if (realNow() - m_busySince < UnknownWait) {
        return false;
    }
    ++m_unknownWaits;
    m_stopped = false;
    for (int index = 0; index < m_page.slotsUsed; ++index) {
        if (doing(m_page.slots[index].state) != Free && sleeps(index)) {
            takeBackCall(m_page.slots[index]);
        }
    }
    m_turnsThen = turns();
    return noChildWorks();
}

void Conductor::takeBackCall(Slot& slot)
{
    std::uint32_t state = slot.state;
    if (doing(state) >= Waiting && (state & Called) && slot.state.compare_exchange_strong(state, state & ~Called)) {
        --m_page.running;
    }
}

bool Conductor::noChildWorks()
{
    const std::uint32_t begun = m_page.children;
    if (begun == m_childrenEnded) {
        return true;
    }
    if (m_tasks.hasChild(!m_stopped)) { // one that has ended is about to wake a thread, unless all are stopped
        return false;
    }
    m_childrenEnded = begun;
    m_closely = true; // the signal of its end was handled in some thread, perhaps in the middle of a wait
    return m_stopped;
}

} // namespace virtualtime
