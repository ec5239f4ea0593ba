#include "process.h"

#include "board.h"
#include "failure.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr int StopPatienceMs = 3000;

[[noreturn]] void becomeServer()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int log = open(ServerLog, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int nothing = open("/dev/null", O_RDONLY);
    if (log < 0 || nothing < 0 || chdir("/home/root") != 0) {
        _exit(126);
    }
    dup2(nothing, 0);
    dup2(log, 1);
    dup2(log, 2);
    const char* const arguments[] = {ServerProgram, nullptr};
    const char* const environment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/home/root", "LC_ALL=C.UTF-8",
                                       nullptr};
    execve(ServerProgram, const_cast<char**>(arguments), const_cast<char**>(environment));
    _exit(127);
}

long fieldOf(const std::string& file, const std::string& name)
{
    std::ifstream lines(file);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind(name, 0) == 0) {
            return std::stol(line.substr(name.size() + 1));
        }
    }
    return 0; // the thread has ended meanwhile
}

template<typename Visit>
void forEachThread(pid_t pid, Visit visit)
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        visit(task.path().string() + "/status");
    }
}

} // namespace

void runAheadOfOthers()
{
    constexpr int Priority = 10;
    sched_param parameters{};
    parameters.sched_priority = Priority;
    check(sched_setscheduler(0, SCHED_FIFO, &parameters) == 0, "real-time priority");
}

Process::Process(pid_t pid, Nanoseconds startedAt, bool mustEndWell)
    : m_pid(pid)
    , m_startedAt(startedAt)
    , m_mustEndWell(mustEndWell)
{
    check(pid > 0, "fork");
}

Process::Process(Process&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1))
    , m_startedAt(other.m_startedAt)
    , m_mustEndWell(other.m_mustEndWell)
{}

Process::~Process()
{
    stop();
}

Process Process::server()
{
    const Nanoseconds startedAt = now();
    const pid_t pid = fork();
    if (pid == 0) {
        becomeServer();
    }
    return {pid, startedAt, true};
}

Process Process::copy(const std::function<void()>& work)
{
    const Nanoseconds startedAt = now();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        work();
        _exit(0);
    }
    return {pid, startedAt, false};
}

void Process::stop()
{
    if (m_pid <= 0) {
        return;
    }
    const pid_t pid = std::exchange(m_pid, -1);
    kill(pid, SIGTERM);
    int status = 0;
    for (int waited = 0; waitpid(pid, &status, WNOHANG) == 0; ++waited) {
        if (waited == StopPatienceMs) {
            kill(pid, SIGKILL);
        }
        usleep(1000);
    }
    check(!m_mustEndWell || status == 0, "the server ended with wait status " + std::to_string(status));
}

Nanoseconds Process::cpuTime() const
{
    clockid_t clock{};
    check(clock_getcpuclockid(m_pid, &clock) == 0, "the CPU clock of the process");
    timespec time{};
    check(clock_gettime(clock, &time) == 0, "the process has ended");
    return time.tv_sec * Second + time.tv_nsec;
}

long Process::residentKiB() const
{
    return fieldOf("/proc/" + std::to_string(m_pid) + "/status", "VmRSS:");
}

long Process::wakeUps() const
{
    long total = 0;
    forEachThread(m_pid, [&](const std::string& status) { total += fieldOf(status, "voluntary_ctxt_switches:"); });
    return total;
}

int Process::threads() const
{
    int count = 0;
    forEachThread(m_pid, [&](const std::string&) { ++count; });
    return count;
}

} // namespace bench
