// What the bench's event loop calls: how far the server and the clock go before it is the loop's turn again.
#include "conductor.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <new>
#include <sys/epoll.h>

#define EXPORTED __attribute__((visibility("default")))

using namespace virtualtime;

/// What the bench knows when it hands over, and what it is told.
struct Stride
{
    std::int64_t now;      ///< in and out
    std::int64_t due;      ///< the bench's next deadline, or Never
    std::int64_t sent;     ///< bytes that the server can read of its serial line
    std::int64_t received; ///< bytes that have come from there, or -1: nobody reads them
    std::int32_t events;   ///< the bench's epoll instance
    std::int32_t jumps;    ///< in: how often the clock may be moved at most; out: how often it was
    std::int64_t moment;   ///< out: the system's wall clock when it was moved last
};

namespace {

constexpr std::int64_t PatienceMicroseconds = 2000;
constexpr int LineMilliseconds = 1;    // for bytes that the kernel is just carrying
constexpr std::int64_t Step = 1000000; // the clock shows whole milliseconds: what is due in the same one is due at once

std::int64_t wallNow()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * std::int64_t{1000000000} + now.tv_nsec;
}

bool hasEvents(int events, int milliseconds)
{
    epoll_event unused;
    return epoll_wait(events, &unused, 1, milliseconds) != 0; // also when a signal is for the bench
}

/// Lets the server do what it has to, and time pass, until the bench has something to do. First comes the server.
Verdict stride(Conductor* conductor, Stride& with)
{
    const std::int32_t most = with.jumps;
    for (with.jumps = 0;; ++with.jumps) {
        const Verdict verdict =
            conductor ? conductor->settles(PatienceMicroseconds, with.sent, with.received) : Verdict::Settled;
        if (!hasSettled(verdict)) {
            return verdict;
        }
        if (with.due <= with.now || hasEvents(with.events, verdict == Verdict::FromServer ? LineMilliseconds : 0)) {
            return Verdict::BenchsTurn;
        }
        const std::int64_t next = conductor ? std::min(with.due, conductor->nextDeadline()) : with.due;
        if (verdict == Verdict::FromServer || with.jumps == most || next == Never) {
            return verdict;
        }
        with.now = std::max(with.now, (next + Step - 1) / Step * Step);
        with.moment = wallNow();
        if (conductor) {
            conductor->advance(with.now);
        }
    }
}

} // namespace

extern "C" {

/// How many bytes a page has; a file of so many zeros is to be mapped by both sides.
EXPORTED std::int64_t virtualtime_page_size()
{
    return sizeof(Page);
}

/// Makes a page ready for the next server; the clock goes on from `now`.
EXPORTED void virtualtime_prepare(Page* page, std::int64_t now, std::int64_t monotonicBase, std::int64_t realtimeBase)
{
    auto* fresh = new (page) Page{};
    fresh->version = PageVersion;
    fresh->wakeSignal = SIGRTMAX - 3;
    fresh->monotonicBase = monotonicBase;
    fresh->realtimeBase = realtimeBase;
    fresh->now = now;
}

/// The process that has taken part since the page was prepared; 0 is none.
EXPORTED std::int32_t virtualtime_process(const Page* page)
{
    return page->process;
}

EXPORTED Conductor* virtualtime_begin(Page* page, std::int32_t process)
{
    return new Conductor(page, process);
}

EXPORTED void virtualtime_end(Conductor* conductor)
{
    delete conductor;
}

/// See `stride`; the number of a Verdict. Without a conductor there is no server.
EXPORTED std::int32_t virtualtime_stride(Conductor* conductor, Stride* with)
{
    return static_cast<std::int32_t>(stride(conductor, *with));
}

/// Something was done to the server of which neither line nor descriptors tell.
EXPORTED void virtualtime_look_closely(Conductor* conductor)
{
    conductor->lookClosely();
}

/// How often the server was taken to rest although a thread waited in a way that the library does not know.
EXPORTED std::int64_t virtualtime_unknown_waits(const Conductor* conductor)
{
    return conductor->unknownWaits();
}

EXPORTED std::int64_t virtualtime_line_read(const Page* page)
{
    return page->lineRead;
}

EXPORTED std::int64_t virtualtime_line_written(const Page* page)
{
    return page->lineWritten;
}

} // extern "C"
