// Waits in every way that a program can, one after the other, and prints for each how many milliseconds it took by the
// clock that it sees. In virtual time each of them takes exactly what it asked for.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <functional>
#include <limits>
#include <linux/futex.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

void took(const char* name, const std::function<void()>& wait)
{
    const auto began = Clock::now();
    wait();
    std::printf("%s %lld\n", name, static_cast<long long>((Clock::now() - began) / milliseconds(1)));
    std::fflush(stdout);
}

timespec in(clockid_t clock, int ms)
{
    timespec time;
    clock_gettime(clock, &time);
    const long long nanoseconds = time.tv_nsec + ms * 1000000LL;
    return {time.tv_sec + static_cast<time_t>(nanoseconds / 1000000000), static_cast<long>(nanoseconds % 1000000000)};
}

void descriptorsAndSleeps()
{
    int ends[2];
    if (pipe(ends)) {
        return;
    }
    pollfd reading{ends[0], POLLIN, 0};
    took("poll", [&] { poll(&reading, 1, 100); });
    const timespec duration{0, 200000000};
    took("ppoll", [&] { ppoll(&reading, 1, &duration, nullptr); });
    timeval limit{0, 300000};
    fd_set set;
    FD_ZERO(&set);
    FD_SET(ends[0], &set);
    took("select", [&] { select(ends[0] + 1, &set, nullptr, nullptr, &limit); });
    took("nanosleep", [&] { nanosleep(&duration, nullptr); });
    took("usleep", [] { usleep(40000); });
    took("sleep", [] { sleep(2); });
    const timespec point = in(CLOCK_MONOTONIC, 60);
    took("clock_nanosleep", [&] { clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &point, nullptr); });
    std::thread writer([&] {
        std::this_thread::sleep_for(milliseconds(70));
        const ssize_t written = write(ends[1], "x", 1);
        static_cast<void>(written);
    });
    took("poll until written", [&] { poll(&reading, 1, 1000); });
    took("pthread_join", [&] { writer.join(); });
}

void locks()
{
    std::mutex mutex;
    std::condition_variable condition;
    std::unique_lock<std::mutex> lock(mutex);
    took("condition clockwait", [&] { condition.wait_for(lock, milliseconds(110)); });
    pthread_cond_t plain = PTHREAD_COND_INITIALIZER;
    const timespec point = in(CLOCK_REALTIME, 120);
    took("condition timedwait", [&] { pthread_cond_timedwait(&plain, mutex.native_handle(), &point); });
    const timespec never{std::numeric_limits<time_t>::max(), 0};
    std::thread caller([&] {
        std::this_thread::sleep_for(milliseconds(190));
        pthread_cond_signal(&plain);
    });
    took("condition without an end", [&] { pthread_cond_timedwait(&plain, mutex.native_handle(), &never); });
    caller.join();
    bool said = false;
    std::thread speaker([&] {
        std::this_thread::sleep_for(milliseconds(130));
        const std::lock_guard<std::mutex> guard(mutex);
        said = true;
        condition.notify_one();
    });
    took("condition until notified", [&] { condition.wait(lock, [&] { return said; }); });
    speaker.join();
    std::timed_mutex held;
    held.lock();
    std::thread contender(
        [&] { took("timed mutex", [&] { static_cast<void>(held.try_lock_for(milliseconds(140))); }); });
    contender.join();
    sem_t semaphore;
    sem_init(&semaphore, 0, 0);
    const timespec until = in(CLOCK_REALTIME, 150);
    took("semaphore", [&] { sem_timedwait(&semaphore, &until); });
}

void futexes()
{
    static std::atomic<int> word{0};
    const timespec duration{0, 160000000};
    took("futex", [&] { syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, 0, &duration, nullptr, 0); });
    const timespec point = in(CLOCK_MONOTONIC, 170);
    took("futex bitset",
         [&] { syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, 0, &point, nullptr, FUTEX_BITSET_MATCH_ANY); });
    const timespec wall = in(CLOCK_REALTIME, 180);
    took("futex wall", [&] {
        syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE | FUTEX_CLOCK_REALTIME, 0, &wall, nullptr,
                FUTEX_BITSET_MATCH_ANY);
    });
}

void impatience()
{
    took("asking for the time without end", [] {
        const auto until = Clock::now() + milliseconds(5);
        while (Clock::now() < until) {
        }
    });
    took("polling without end", [] {
        const auto until = time(nullptr) + 2;
        while (time(nullptr) < until) {
            poll(nullptr, 0, 0);
        }
    });
}

} // namespace

int main()
{
    descriptorsAndSleeps();
    locks();
    futexes();
    impatience();
    took("a day", [] { sleep(86400); });
}
