#include "logspy.h"
#include "patience.h"
#include "pseudoterminal.h"
#include "serialport.h"
#include "serialportreadthreadworker.h"

#include <QDir>
#include <QSignalSpy>
#include <QThread>
#include <QtTest>

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

QList<QByteArray> payloads(const QSignalSpy& spy)
{
    QList<QByteArray> all;
    for (const QList<QVariant>& arguments : spy) {
        all.append(arguments.first().toByteArray());
    }
    return all;
}

termios settingsOf(const QByteArray& portName)
{
    termios settings = {};
    const int handle = ::open(("/dev/" + portName).constData(), O_RDWR | O_NOCTTY);
    tcgetattr(handle, &settings);
    ::close(handle);
    return settings;
}

/// Threads that read from a line.
int readers()
{
    int count = 0;
    const QStringList tasks = QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& task : tasks) {
        QFile name("/proc/self/task/" + task + "/comm");
        count += name.open(QIODevice::ReadOnly) && name.readAll() == "uart-reader\n" ? 1 : 0;
    }
    return count;
}

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size();
}

} // namespace

class TestSerialPort : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void deliversOneLinePerSignal_data();
    void deliversOneLinePerSignal();
    void holdsALineBackUntilItsNewline();
    void cutsALongLineIntoPieces();
    void discardsInputFromBeforeTheStart();
    void runsTheLineWithFixedSettings();
    void otherLineSettingsAreKeptWithoutEffect();
    void refusedBaudRateIsToldAndTheLineStartsAllTheSame();
    void writesBytesUnchanged();
    void logsAStart();
    void survivesAPortThatCannotBeUsed_data();
    void survivesAPortThatCannotBeUsed();
    void survivesAStartWithoutAName();
    void survivesAVanishedDevice();
    void releasesThreadAndDescriptor();
    void stopsAReaderWhoseDeviceCameBySignal();
    void readsAgainAtOnce_data();
    void readsAgainAtOnce();
    void stopMayComeBeforeTheLoop();

private:
    void open();

    std::unique_ptr<PseudoTerminal> m_line;
    std::unique_ptr<SerialPort> m_port;
};

void TestSerialPort::init()
{
    m_line = std::make_unique<PseudoTerminal>();
    QVERIFY(!m_line->portName().isEmpty());
    m_port = std::make_unique<SerialPort>();
}

void TestSerialPort::cleanup()
{
    m_port.reset();
    m_line.reset();
}

void TestSerialPort::open()
{
    QVERIFY(m_port->setPort(m_line->portName().constData()));
    m_port->start();
}

void TestSerialPort::deliversOneLinePerSignal_data()
{
    QTest::addColumn<QByteArray>("sent");
    QTest::addColumn<QList<QByteArray>>("received");

    const auto bytes = [](const char* hex) {
        return QByteArray::fromHex(hex);
    };
    const auto oneLine = [](const char* name, const QByteArray& line) {
        QTest::newRow(name) << line << QList<QByteArray>{line};
    };
    oneLine("a frame with its newline", bytes("82406400E58E27030A"));
    oneLine("a newline alone", bytes("0A"));
    oneLine("carriage return is data", bytes("0D410D0A"));
    oneLine("zero bytes are data", bytes("000041000A"));
    oneLine("no editing characters", bytes("4108417F411541170A"));
    oneLine("no signal or end-of-file characters", bytes("03041A1C0A"));
    oneLine("no flow control", bytes("1311410A"));
    oneLine("all eight bits", bytes("80FFFE90820A"));
    oneLine("512 bytes in one piece", QByteArray(511, 'a') + '\n');
    QTest::newRow("two lines at once") << bytes("410A42430A") << QList<QByteArray>{bytes("410A"), bytes("42430A")};
}

void TestSerialPort::deliversOneLinePerSignal()
{
    QFETCH(QByteArray, sent);
    QFETCH(QList<QByteArray>, received);
    QSignalSpy spy(m_port.get(), &SerialPort::readyRead);
    open();

    QVERIFY(m_line->send(sent));

    QTRY_COMPARE(spy.count(), received.size());
    QCOMPARE(payloads(spy), received);
}

void TestSerialPort::holdsALineBackUntilItsNewline()
{
    QSignalSpy spy(m_port.get(), &SerialPort::readyRead);
    open();

    QVERIFY(m_line->send("first\nsec"));
    QTRY_COMPARE(spy.count(), 1);
    QVERIFY(m_line->send("ond\n"));

    QTRY_COMPARE(spy.count(), 2);
    QCOMPARE(payloads(spy), (QList<QByteArray>{"first\n", "second\n"}));
}

void TestSerialPort::cutsALongLineIntoPieces()
{
    QSignalSpy spy(m_port.get(), &SerialPort::readyRead);
    open();
    const QByteArray line = QByteArray(700, 'a') + QByteArray(599, 'b') + '\n';

    QVERIFY(m_line->send(line));

    QTRY_COMPARE(payloads(spy).join(), line);
    QCOMPARE(spy.count(), 3);
    QCOMPARE(payloads(spy).at(0).size(), 512);
    QCOMPARE(payloads(spy).at(1).size(), 512);
    QCOMPARE(payloads(spy).at(2).size(), 276);
}

void TestSerialPort::discardsInputFromBeforeTheStart()
{
    // Held open until the port has it: what has arrived goes with the last who has the device open.
    const int near = ::open(("/dev/" + m_line->portName()).constData(), O_RDWR | O_NOCTTY);
    QVERIFY(m_line->send("stale\n"));
    pollfd arrived = {near, POLLIN, 0};
    QCOMPARE(::poll(&arrived, 1, PatienceMs), 1);
    QSignalSpy spy(m_port.get(), &SerialPort::readyRead);

    open();
    ::close(near);
    QVERIFY(m_line->send("fresh\n"));

    QTRY_COMPARE(spy.count(), 1);
    QCOMPARE(payloads(spy), QList<QByteArray>{"fresh\n"});
}

void TestSerialPort::runsTheLineWithFixedSettings()
{
    open();

    const termios settings = settingsOf(m_line->portName());

    QCOMPARE(settings.c_iflag, 0U);
    QCOMPARE(settings.c_oflag, 0U);
    QCOMPARE(settings.c_cflag & ~static_cast<tcflag_t>(CBAUD), static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
    QCOMPARE(settings.c_lflag, static_cast<tcflag_t>(ICANON));
    QVERIFY(std::all_of(std::begin(settings.c_cc), std::end(settings.c_cc), [](cc_t c) { return c == 0; }));
    QCOMPARE(cfgetispeed(&settings), static_cast<speed_t>(B230400));
    QCOMPARE(cfgetospeed(&settings), static_cast<speed_t>(B230400));
}

void TestSerialPort::otherLineSettingsAreKeptWithoutEffect()
{
    QVERIFY(m_port->setBaudRate(B9600));
    QVERIFY(m_port->setStartBit(2));
    QVERIFY(m_port->setDataBits(7));
    QVERIFY(m_port->setStopBit(2));
    QVERIFY(m_port->setEndOfLineByte('x'));

    open();

    const termios settings = settingsOf(m_line->portName());
    QCOMPARE(cfgetospeed(&settings), static_cast<speed_t>(B9600));
    QCOMPARE(settings.c_cflag & ~static_cast<tcflag_t>(CBAUD), static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
    QCOMPARE(static_cast<int>(settings.c_cc[VEOL]), 0);
}

void TestSerialPort::refusedBaudRateIsToldAndTheLineStartsAllTheSame()
{
    m_port->setBaudRate(12345); // bits per second instead of one of the system's constants
    const LogSpy spy;
    QSignalSpy received(m_port.get(), &SerialPort::readyRead);

    open();

    QCOMPARE(spy.lines().mid(2), (QStringList{"Serial_port_c: Failed to set baud rate on line-in",
                                              "Serial_port_c: Failed to set baud rate on line-out",
                                              "Serial_port_c: Config success", "Serial_port_c: Start reading data"}));
    QVERIFY(m_line->send("still here\n"));
    QTRY_COMPARE(payloads(received), QList<QByteArray>{"still here\n"});
}

void TestSerialPort::writesBytesUnchanged()
{
    open();
    QByteArray bytes = QByteArray::fromHex("8240640A0D0000FF7F1103040A");

    m_port->sendData(bytes.data(), static_cast<unsigned int>(bytes.size()));

    QTRY_COMPARE(m_line->received().toHex(), QByteArray("8240640a0d0000ff7f1103040a"));
}

void TestSerialPort::logsAStart()
{
    const LogSpy log;

    open();

    const QString path = QStringLiteral("/dev/") + QString::fromLatin1(m_line->portName());
    QCOMPARE(log.lines(QtDebugMsg),
             (QStringList{"Serial_port_c: Start connection", "Serial_port_c: Successfully connected to:  " + path,
                          "Serial_port_c: Config success", "Serial_port_c: Start reading data"}));
}

void TestSerialPort::survivesAPortThatCannotBeUsed_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QStringList>("log");

    QTest::newRow("no such device") << QByteArray("tessaro-no-such-port")
                                    << QStringList{"Serial_port_c: Start connection",
                                                   "Serial_port_c: Failed connection to:  /dev/tessaro-no-such-port"};
    QTest::newRow("not a terminal") << QByteArray("null")
                                    << QStringList{"Serial_port_c: Start connection",
                                                   "Serial_port_c: Successfully connected to:  /dev/null",
                                                   "Serial_port_c: Failed on tcgetattr"};
}

void TestSerialPort::survivesAPortThatCannotBeUsed()
{
    QFETCH(QByteArray, name);
    QFETCH(QStringList, log);
    const LogSpy spy;
    QSignalSpy reading(m_port.get(), &SerialPort::startReading);

    m_port->setPort(name.constData());
    m_port->start();
    QByteArray bytes("lost\n");
    m_port->sendData(bytes.data(), static_cast<unsigned int>(bytes.size()));

    QCOMPARE(spy.lines(), log);
    QCOMPARE(reading.count(), 0);
}

void TestSerialPort::survivesAStartWithoutAName()
{
    const LogSpy spy;

    m_port->start(); // no null path may reach the system, which the sanitizers would tell

    QCOMPARE(spy.lines(), (QStringList{"Serial_port_c: Start connection", "Serial_port_c: Failed connection to:  "}));
}

void TestSerialPort::survivesAVanishedDevice()
{
    const LogSpy log;
    open();
    m_line->hangUp();

    const auto failedReads = [&log] {
        return log.count(QStringLiteral("Serial_port_read_thread_c: Error: No bytes")) +
               log.count(QStringLiteral("Serial_port_read_thread_c: Info: No data waiting"));
    };
    QTRY_VERIFY(failedReads() > 10);

    QByteArray bytes("lost\n");
    m_port->sendData(bytes.data(), static_cast<unsigned int>(bytes.size()));
    m_port.reset();
    const int readsUntilThen = failedReads();
    QCOMPARE(failedReads(), readsUntilThen); // nobody reads any more
}

void TestSerialPort::releasesThreadAndDescriptor()
{
    m_port.reset();
    const int before = openDescriptors();
    for (int round = 0; round < 50; ++round) {
        m_port = std::make_unique<SerialPort>();
        open();
        if (round % 2 == 0) { // every other time, let the reader get into its blocking read
            QSignalSpy spy(m_port.get(), &SerialPort::readyRead);
            QVERIFY(m_line->send("x\n"));
            QTRY_COMPARE(spy.count(), 1);
        }
        m_port.reset();
    }

    QCOMPARE(openDescriptors(), before);
}

void TestSerialPort::stopsAReaderWhoseDeviceCameBySignal()
{
    std::array<int, 2> pipe = {};
    QCOMPARE(::pipe(pipe.data()), 0);
    QSignalSpy spy(m_port.get(), &SerialPort::readyRead);
    emit m_port->startReading(pipe[0]);
    QCOMPARE(::write(pipe[1], "x\n", 2), 2);
    QTRY_COMPARE(payloads(spy), QList<QByteArray>{"x\n"});

    QVERIFY(readers() == 1);
    m_port.reset();

    QCOMPARE(readers(), 0); // one that cannot be stopped is given up after a second, and left where it is
    ::close(pipe[0]);
    ::close(pipe[1]);
}

void TestSerialPort::readsAgainAtOnce_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("line");

    QTest::newRow("handle 0 means no port") << QString() << "Serial_port_read_thread_c: Error: No serial port handle";
    QTest::newRow("failing read") << QStringLiteral("/") << "Serial_port_read_thread_c: Error: No bytes";
    QTest::newRow("empty read") << QStringLiteral("/dev/null") << "Serial_port_read_thread_c: Info: No data waiting";
}

void TestSerialPort::readsAgainAtOnce()
{
    QFETCH(QString, device);
    QFETCH(QString, line);
    const LogSpy log;
    const int handle = device.isEmpty() ? 0 : ::open(qPrintable(device), O_RDONLY);
    SerialPortReadThreadWorker worker;
    QThread thread;
    thread.start();
    worker.moveToThread(&thread);

    QMetaObject::invokeMethod(&worker, [&worker, handle] { worker.readLoop(handle); });
    QTRY_VERIFY(log.count(line) > 100);

    QVERIFY(worker.stop(60s));
    QCOMPARE(log.count(line), log.lines().size());
    thread.quit();
    QVERIFY(thread.wait(PatienceMs));
    if (handle > 0) {
        ::close(handle);
    }
}

void TestSerialPort::stopMayComeBeforeTheLoop()
{
    SerialPortReadThreadWorker worker;

    QVERIFY(!worker.stop(20ms));
    worker.readLoop(-1);

    QVERIFY(worker.stop(60s));
}

QTEST_GUILESS_MAIN(TestSerialPort)
#include "tst_serialport.moc"
