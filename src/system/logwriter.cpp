#include "logwriter.h"

#include <QDateTime>
#include <QDeadlineTimer>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr int MaxBatchBytes = 16 * 1024;
constexpr unsigned long FlushStepMs = 1;

LogWriter* s_installed = nullptr; // never deleted: threads may log until the process has ended

// --- The time stamp -------------------------------------------------------------------------------------------------

constexpr qint64 MsPerSecond = 1000;
constexpr qint64 SecondsPerMinute = 60;
constexpr char Separator[] = " - ";

/// "yyyyMMdd hh:mm:" of a minute. Zones change their offset at full minutes, so that the calendar, which takes a lock
/// of the C library, is asked once a minute and thread.
struct MinuteText
{
    qint64 minute = -1;
    char text[32] = {};
};

const char* minuteText(qint64 minute)
{
    thread_local MinuteText known;
    if (known.minute != minute) {
        const auto start = static_cast<time_t>(minute * SecondsPerMinute);
        struct tm local = {};
        localtime_r(&start, &local);
        std::strftime(known.text, sizeof(known.text), "%Y%m%d %H:%M:", &local);
        known.minute = minute;
    }
    return known.text;
}

void appendDigits(QByteArray& text, int number, int width)
{
    char digits[] = "000";
    for (int i = width; i > 0; number /= 10) {
        digits[--i] = static_cast<char>('0' + number % 10);
    }
    text.append(digits, width);
}

void appendTime(QByteArray& line, qint64 msSinceEpoch)
{
    const qint64 seconds = msSinceEpoch / MsPerSecond;
    line.append(minuteText(seconds / SecondsPerMinute));
    appendDigits(line, static_cast<int>(seconds % SecondsPerMinute), 2);
    line.append('.');
    appendDigits(line, static_cast<int>(msSinceEpoch % MsPerSecond), 3);
}

// --- The text -------------------------------------------------------------------------------------------------------

/// Appends a text of ASCII characters up to its first zero. @return false, with nothing appended, for any other text.
bool appendAscii(QByteArray& line, const QString& text)
{
    const int start = line.size();
    line.resize(start + text.size());
    char* out = line.data() + start;
    for (const QChar character : text) {
        if (character.unicode() == 0) {
            break;
        }
        if (character.unicode() > 0x7F) {
            line.truncate(start);
            return false;
        }
        *out++ = static_cast<char>(character.unicode());
    }
    line.truncate(static_cast<int>(out - line.constData()));
    return true;
}

// --- Descriptors ----------------------------------------------------------------------------------------------------

void openStandardDescriptors()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) == -1) {
            ::open("/dev/null", O_RDWR); // takes the lowest number that is free: this one
        }
    }
}

/// Writes until all is written or can never be. A reader that has gone may be followed by another: the next batch
/// tries.
void writeAll(int descriptor, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(descriptor, data, size);
        if (written > 0) {
            data += written;
            size -= static_cast<std::size_t>(written);
        } else if (written < 0 && errno == EAGAIN) {
            // Somebody with whom the descriptor is shared has made it non-blocking.
            pollfd ready = {descriptor, POLLOUT, 0};
            ::poll(&ready, 1, -1);
        } else if (written == 0 || errno != EINTR) {
            return;
        }
    }
}

void handleMessage(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    Q_UNUSED(context)
    s_installed->add(LogWriter::lineOf(message, QDateTime::currentMSecsSinceEpoch()));
    if (type == QtFatalMsg) {
        s_installed->flush(LogWriter::EndPatience);
    }
}

} // namespace

LogWriter::LogWriter(int descriptor)
    : m_descriptor(descriptor)
{
    m_thread.setObjectName(QStringLiteral("log"));
    // Qt sets its text codec up at first use: here, or the thread would, for its name, beside the application object.
    const QByteArray nameOfTheThread = m_thread.objectName().toLocal8Bit();
    Q_UNUSED(nameOfTheThread)
    m_thread.start();
}

LogWriter::~LogWriter()
{
    m_isEnding = true;
    m_wake.release();
    m_thread.wait();
}

void LogWriter::install()
{
    openStandardDescriptors();
    s_installed = new LogWriter(STDERR_FILENO);
    qInstallMessageHandler(handleMessage);
}

void LogWriter::flushInstalled()
{
    if (s_installed != nullptr) {
        s_installed->flush(EndPatience);
    }
}

QByteArray LogWriter::lineOf(const QString& message, qint64 msSinceEpoch)
{
    constexpr int roomForTheRest = 32; // time stamp, separator, line feed
    QByteArray line;
    line.reserve(roomForTheRest + message.size());
    appendTime(line, msSinceEpoch);
    line.append(Separator);
    if (!appendAscii(line, message)) {
        line.append(message.toLocal8Bit().constData());
    }
    line.append('\n');
    return line;
}

// --- In the threads that log ----------------------------------------------------------------------------------------

void LogWriter::add(QByteArray line)
{
    const auto size = static_cast<std::size_t>(line.size());
    if (m_queuedBytes.fetch_add(size) + size > MaxBytes) {
        m_queuedBytes -= size;
        ++m_lost;
        return;
    }
    LineQueue::Line queued{std::move(line), m_lost.exchange(0)};
    if (!m_queue.push(queued)) {
        m_queuedBytes -= size;
        m_lost += queued.lostBefore + 1;
        return;
    }
    // Full ordering between what was queued and the look at the sleeper, as in sleepUntilWoken().
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (m_isAsleep && m_isAsleep.exchange(false)) {
        m_wake.release();
    }
}

bool LogWriter::flush(std::chrono::milliseconds bound)
{
    const LineQueue::Position wanted = m_queue.added();
    const QDeadlineTimer deadline(bound);
    while (LineQueue::isBefore(m_written, wanted)) {
        if (deadline.hasExpired()) {
            return false;
        }
        QThread::msleep(FlushStepMs);
    }
    return true;
}

// --- In the thread that writes --------------------------------------------------------------------------------------

void LogWriter::run()
{
    // A reader that has gone is told by the write's result; requests to end are for other threads.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);

    while (true) {
        if (takeBatch()) {
            writeBatch();
        } else if (m_isEnding) {
            return;
        } else {
            sleepUntilWoken();
        }
    }
}

bool LogWriter::takeBatch()
{
    LineQueue::Line line;
    while (m_batch.size() < MaxBatchBytes && m_queue.pop(line)) {
        m_queuedBytes -= static_cast<std::size_t>(line.text.size());
        reportLost(line.lostBefore);
        m_batch.append(line.text);
        ++m_batchLines;
    }
    if (m_batchLines == 0) {
        reportLost(m_lost.exchange(0)); // nothing came behind them
    }
    return !m_batch.isEmpty();
}

void LogWriter::reportLost(std::size_t count)
{
    if (count > 0) {
        m_batch.append(
            lineOf(QStringLiteral("LogWriter: %1 lines lost.").arg(count), QDateTime::currentMSecsSinceEpoch()));
    }
}

void LogWriter::writeBatch()
{
    writeAll(m_descriptor, m_batch.constData(), static_cast<std::size_t>(m_batch.size()));
    m_batch.clear();
    m_written += m_batchLines;
    m_batchLines = 0;
}

void LogWriter::sleepUntilWoken()
{
    m_isAsleep = true;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (m_queue.hasLine() || m_lost > 0 || m_isEnding) {
        m_isAsleep = false; // something came meanwhile, and its thread may have found nobody asleep
        return;
    }
    m_wake.acquire();
    m_isAsleep = false;
}
