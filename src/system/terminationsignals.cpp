#include "terminationsignals.h"

#include <QSocketNotifier>
#include <QtGlobal>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int ReadEnd = 0;
constexpr int WriteEnd = 1;

// Written by the signal handler, which can reach nothing but globals.
int s_pipe[2] = {-1, -1};

void handleSignal(int)
{
    // The interrupted code may be about to look at its own error number.
    const int interruptedErrno = errno;
    const char anyByte = 1;
    // A full pipe already holds a request, so a failing write loses nothing.
    [[maybe_unused]] const ssize_t written = write(s_pipe[WriteEnd], &anyByte, sizeof(anyByte));
    errno = interruptedErrno;
}

void installHandler(int signalNumber, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(signalNumber, &action, nullptr);
}

} // namespace

TerminationSignals::TerminationSignals(QObject* parent)
    : QObject(parent)
{
    installHandler(SIGPIPE, SIG_IGN);
    if (pipe2(s_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        return; // Without descriptors left, the default action of the signals is the best that remains.
    }
    m_notifier = new QSocketNotifier(s_pipe[ReadEnd], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &TerminationSignals::readPipe);
    installHandler(SIGTERM, handleSignal);
    installHandler(SIGINT, handleSignal);
}

TerminationSignals::~TerminationSignals()
{
    installHandler(SIGTERM, SIG_DFL);
    installHandler(SIGINT, SIG_DFL);
    for (int& end : s_pipe) {
        if (end >= 0) {
            close(end);
        }
        end = -1;
    }
}

void TerminationSignals::readPipe()
{
    char bytes[16];
    while (read(s_pipe[ReadEnd], bytes, sizeof(bytes)) > 0) {
    }
    emit terminationRequested();
}
