#include "logwriter.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QtTest>

#include <array>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr qint64 QuarterPastNine = 1795339510007; // 2026-11-22 09:25:10.007 UTC

/// A pipe of one page, so that it is soon full.
class Pipe
{
public:
    Pipe()
    {
        if (pipe2(m_ends, O_CLOEXEC) != 0 || fcntl(m_ends[1], F_SETPIPE_SZ, 4096) < 0) {
            qFatal("no pipe");
        }
    }
    ~Pipe()
    {
        closeReader();
        closeWriter();
    }
    int writer() const { return m_ends[1]; }
    void closeReader() { closeEnd(0); }
    void closeWriter() { closeEnd(1); }
    /// Everything until the other end is closed.
    QByteArray readAll()
    {
        QByteArray all;
        char bytes[4096];
        ssize_t count = 0;
        while ((count = ::read(m_ends[0], bytes, sizeof(bytes))) > 0) {
            all.append(bytes, static_cast<int>(count));
        }
        return all;
    }

private:
    void closeEnd(int end)
    {
        if (m_ends[end] >= 0) {
            ::close(m_ends[end]);
        }
        m_ends[end] = -1;
    }
    int m_ends[2] = {-1, -1};
};

/// What goes to the standard error stream while `action` runs.
QByteArray errorStreamOf(const std::function<void()>& action)
{
    char path[] = "/tmp/tst_logwriter-XXXXXX";
    const int file = mkstemp(path);
    const int kept = dup(STDERR_FILENO);
    dup2(file, STDERR_FILENO);
    action();
    dup2(kept, STDERR_FILENO);
    close(kept);
    QFile written(QString::fromLatin1(path));
    QByteArray all;
    if (written.open(QIODevice::ReadOnly)) {
        all = written.readAll();
    }
    written.remove();
    close(file);
    return all;
}

QByteArray numbered(int number)
{
    return "line " + QByteArray::number(number) + '\n';
}

} // namespace

class TestLogWriter : public QObject
{
    Q_OBJECT

private slots:
    void aLineReads_data();
    void aLineReads();
    void qtsOwnHandlerWritesTheSame_data();
    void qtsOwnHandlerWritesTheSame();
    void aNewMinuteIsSeen();
    void linesKeepTheirOrder();
    void eachThreadsLinesKeepTheirOrder();
    void nobodyWaitsForAReaderThatReadsNothing();
    void aFloodOfLongLinesIsBounded();
    void theEndWaitsForItsPatienceAtMost();
    void aReaderThatHasGoneEndsNothing();
    void aSharedPipeMayBeNonBlocking();
};

void TestLogWriter::aLineReads_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<QByteArray>("line");

    QTest::newRow("plain") << QStringLiteral("MSState::OPEN") << QByteArray("20261122 09:25:10.007 - MSState::OPEN\n");
    QTest::newRow("empty") << QString() << QByteArray("20261122 09:25:10.007 - \n");
    QTest::newRow("other letters") << QStringLiteral("na\u00EFve \u2192 \U0001F600")
                                   << QByteArray(
                                          "20261122 09:25:10.007 - na\xC3\xAFve \xE2\x86\x92 \xF0\x9F\x98\x80\n");
    QTest::newRow("up to a zero byte") << QStringLiteral("ab") + QChar(0) + QStringLiteral("cd")
                                       << QByteArray("20261122 09:25:10.007 - ab\n");
    QTest::newRow("other letters up to a zero byte") << QStringLiteral("\u00E4b") + QChar(0) + QStringLiteral("cd")
                                                     << QByteArray("20261122 09:25:10.007 - \xC3\xA4"
                                                                   "b\n");
    QTest::newRow("a line end inside") << QStringLiteral("one\ntwo")
                                       << QByteArray("20261122 09:25:10.007 - one\ntwo\n");
}

void TestLogWriter::aLineReads()
{
    QFETCH(QString, message);
    QTEST(LogWriter::lineOf(message, QuarterPastNine), "line");
}

void TestLogWriter::qtsOwnHandlerWritesTheSame_data()
{
    aLineReads_data();
}

void TestLogWriter::qtsOwnHandlerWritesTheSame()
{
    QFETCH(QString, message);
    qSetMessagePattern(QStringLiteral("%{time yyyyMMdd hh:mm:ss.zzz} - %{message}"));
    qint64 before = 0;
    qint64 after = 0;
    const QByteArray written = errorStreamOf([&] {
        const QtMessageHandler testHandler = qInstallMessageHandler(nullptr);
        before = QDateTime::currentMSecsSinceEpoch();
        qDebug().noquote() << message;
        after = QDateTime::currentMSecsSinceEpoch();
        qInstallMessageHandler(testHandler);
    });

    bool isAmongThem = false;
    for (qint64 time = before; time <= after; ++time) {
        isAmongThem = isAmongThem || written == LogWriter::lineOf(message, time);
    }
    QVERIFY2(isAmongThem, written.constData());
}

void TestLogWriter::aNewMinuteIsSeen()
{
    QCOMPARE(LogWriter::lineOf(QStringLiteral("a"), QuarterPastNine + 49 * 1000),
             QByteArray("20261122 09:25:59.007 - a\n"));
    QCOMPARE(LogWriter::lineOf(QStringLiteral("b"), QuarterPastNine + 50 * 1000),
             QByteArray("20261122 09:26:00.007 - b\n"));
    QCOMPARE(LogWriter::lineOf(QStringLiteral("c"), QuarterPastNine), QByteArray("20261122 09:25:10.007 - c\n"));
}

void TestLogWriter::linesKeepTheirOrder()
{
    constexpr int count = 3000;
    Pipe pipe;
    QByteArray received;
    std::thread reader([&] { received = pipe.readAll(); });
    QByteArray expected;
    {
        LogWriter writer(pipe.writer());
        for (int i = 0; i < count; ++i) {
            writer.add(numbered(i));
            expected.append(numbered(i));
        }
        QVERIFY(writer.flush(60s));
    }
    pipe.closeWriter();
    reader.join();
    QVERIFY(received == expected);
}

void TestLogWriter::eachThreadsLinesKeepTheirOrder()
{
    constexpr int threads = 4;
    constexpr int count = 1500;
    Pipe pipe;
    QByteArray received;
    std::thread reader([&] { received = pipe.readAll(); });
    {
        LogWriter writer(pipe.writer());
        std::vector<std::thread> logging;
        for (int thread = 0; thread < threads; ++thread) {
            logging.emplace_back([&writer, thread] {
                for (int i = 0; i < count; ++i) {
                    writer.add(QByteArray::number(thread) + ' ' + QByteArray::number(i) + '\n');
                }
            });
        }
        for (std::thread& thread : logging) {
            thread.join();
        }
    }
    pipe.closeWriter();
    reader.join();

    std::array<int, threads> next = {};
    const QList<QByteArray> lines = received.split('\n');
    for (const QByteArray& line : lines.mid(0, lines.size() - 1)) {
        const QList<QByteArray> fields = line.split(' ');
        QCOMPARE(fields.at(1).toInt(), next.at(fields.at(0).toUInt())++);
    }
    QCOMPARE(next, (std::array<int, threads>{count, count, count, count}));
}

void TestLogWriter::nobodyWaitsForAReaderThatReadsNothing()
{
    constexpr int count = 3 * static_cast<int>(LogWriter::MaxLines);
    Pipe pipe;
    auto writer = std::make_unique<LogWriter>(pipe.writer());
    QElapsedTimer call;
    int waited = 0;
    for (int i = 0; i < count; ++i) {
        const QByteArray line = numbered(i);
        call.start();
        writer->add(line);
        waited += call.elapsed() >= 20 ? 1 : 0;
    }
    // The machine may hold up a few calls. Whoever waits for the reader, waits in each for which there is no room.
    QVERIFY2(waited <= count / 100, "calls waited for the reader");

    QByteArray received;
    std::thread reader([&] { received = pipe.readAll(); });
    QVERIFY(writer->flush(60s));
    writer->add("behind\n");
    writer.reset();
    pipe.closeWriter();
    reader.join();

    // Each notice stands where the lines are missing, and counts them.
    const QRegularExpression notice(
        QStringLiteral("^\\d{8} \\d\\d:\\d\\d:\\d\\d\\.\\d{3} - LogWriter: (\\d+) lines lost\\.$"));
    int next = 0;
    int lost = 0;
    QList<QByteArray> lines = received.split('\n');
    QCOMPARE(lines.takeLast(), QByteArray());
    QCOMPARE(lines.takeLast(), QByteArray("behind"));
    for (const QByteArray& line : qAsConst(lines)) {
        const QRegularExpressionMatch match = notice.match(QString::fromLatin1(line));
        if (match.hasMatch()) {
            next += match.captured(1).toInt();
            lost += match.captured(1).toInt();
        } else {
            QCOMPARE(line + '\n', numbered(next++));
        }
    }
    QCOMPARE(next, count);
    QVERIFY(lost > 0);
    QVERIFY(count - lost >= static_cast<int>(LogWriter::MaxLines));
}

void TestLogWriter::aFloodOfLongLinesIsBounded()
{
    constexpr int lineBytes = 64 * 1024;
    Pipe pipe;
    auto writer = std::make_unique<LogWriter>(pipe.writer());
    for (int i = 0; i < 200; ++i) {
        writer->add(QByteArray(lineBytes - 1, 'x') + '\n');
    }
    QByteArray received;
    std::thread reader([&] { received = pipe.readAll(); });
    writer.reset();
    pipe.closeWriter();
    reader.join();
    QVERIFY(received.contains(" lines lost.\n"));
    // One batch is with the system while the queue fills anew.
    QVERIFY(received.count('x') <= static_cast<int>(LogWriter::MaxBytes) + lineBytes);
    QVERIFY(received.count('x') >= static_cast<int>(LogWriter::MaxBytes) - lineBytes);
}

void TestLogWriter::theEndWaitsForItsPatienceAtMost()
{
    Pipe pipe;
    LogWriter writer(pipe.writer());
    for (int i = 0; i < 2000; ++i) {
        writer.add(numbered(i));
    }
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!writer.flush(LogWriter::EndPatience));
    QVERIFY(timer.elapsed() >= LogWriter::EndPatience.count());
    QVERIFY(timer.elapsed() < 10000); // and not for ever; how soon it comes back, the machine decides
    pipe.closeReader();               // releases the writing thread
    QVERIFY(writer.flush(60s));
}

void TestLogWriter::aReaderThatHasGoneEndsNothing()
{
    signal(SIGPIPE, SIG_DFL); // what it does where nobody has ignored it: it ends the process
    Pipe pipe;
    LogWriter writer(pipe.writer());
    pipe.closeReader();
    writer.add("to nobody\n");
    QVERIFY(writer.flush(60s));
    writer.add("to nobody either\n");
    QVERIFY(writer.flush(60s));
}

void TestLogWriter::aSharedPipeMayBeNonBlocking()
{
    Pipe pipe;
    QVERIFY(fcntl(pipe.writer(), F_SETFL, O_NONBLOCK) == 0);
    QByteArray expected;
    QByteArray received;
    std::thread reader;
    {
        LogWriter writer(pipe.writer());
        for (int i = 0; i < 3000; ++i) {
            writer.add(numbered(i));
            expected.append(numbered(i));
        }
        reader = std::thread([&] { received = pipe.readAll(); });
    }
    pipe.closeWriter();
    reader.join();
    QVERIFY(received == expected);
}

QTEST_GUILESS_MAIN(TestLogWriter)

#include "tst_logwriter.moc"
