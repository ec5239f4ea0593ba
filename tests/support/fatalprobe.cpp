#include "fatalprobe.h"

#include <QtGlobal>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef TESSARO_COVERAGE
extern "C" {
#include <gcov.h>
}
#endif

namespace {

constexpr unsigned int ChildLifeSeconds = 120;

#ifdef TESSARO_COVERAGE
// A child ends without the C library's exit, at which its coverage would be written: that is done by hand.
void beginCoverage()
{
    __gcov_reset(); // the parent writes its own
    std::signal(SIGABRT, [](int) { __gcov_dump(); });
}

void keepCoverage()
{
    __gcov_dump();
}
#else
void beginCoverage() {}
void keepCoverage() {}
#endif

[[noreturn]] void runChild(int logPipe, const std::function<void()>& action)
{
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    std::signal(SIGABRT, SIG_DFL);
    std::signal(SIGALRM, SIG_DFL);
    alarm(ChildLifeSeconds);
    dup2(logPipe, STDERR_FILENO);
    // The test framework's message handler would print to standard output and count the line as a test failure.
    qInstallMessageHandler(nullptr);
    qputenv("QT_LOGGING_TO_CONSOLE", "1");
    beginCoverage();
    action();
    keepCoverage();
    std::fflush(stderr);
    _exit(0);
}

QByteArray readAll(int fd)
{
    QByteArray all;
    char chunk[4096];
    ssize_t count = 0;
    while ((count = read(fd, chunk, sizeof(chunk))) > 0) {
        all.append(chunk, static_cast<int>(count));
    }
    return all;
}

// Under user emulation the emulator itself adds a line to the log of a process that aborts.
QString withoutEmulatorsRemark(const QString& log)
{
    const int remark = log.indexOf(QLatin1String("qemu: uncaught target signal"));
    return remark < 0 ? log : log.left(remark);
}

} // namespace

FatalOutcome outcomeOf(const std::function<void()>& action)
{
    FatalOutcome outcome;
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) {
        return outcome;
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(pipeEnds[0]);
        runChild(pipeEnds[1], action);
    }
    close(pipeEnds[1]);
    outcome.log = withoutEmulatorsRemark(QString::fromUtf8(readAll(pipeEnds[0])));
    close(pipeEnds[0]);

    int status = 0;
    waitpid(child, &status, 0);
    outcome.diedOfAbort = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

QString fatalAssertionLog(const QString& file, unsigned int line)
{
    return QStringLiteral("Fatal error in  \"%1\" : %2 .\nFatal\n").arg(file).arg(line);
}
