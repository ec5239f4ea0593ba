#include "internallink.h"
#include "logspy.h"
#include "pseudoterminal.h"

#include <QFile>
#include <QSignalSpy>
#include <QThread>
#include <QtTest>

namespace {

class PseudoTerminalLink : public InternalLink
{
public:
    explicit PseudoTerminalLink(const PseudoTerminal& line)
        : InternalLink(line.portName().constData(), nullptr)
    {}
};

} // namespace

class TestInternalLink : public QObject
{
    Q_OBJECT

private slots:
    void opensTheUartOfTheBaseController();
    void linesComeUpInTheThreadOfTheLink();
    void framesGoDown();
    void injectedBytesComeUp_data();
    void injectedBytesComeUp();
    void closeChangesNothing();
};

void TestInternalLink::opensTheUartOfTheBaseController()
{
    const LogSpy log;

    InternalLink link(nullptr);
    link.sendData("reaches nobody, harms nobody");

    const QStringList lines = log.lines();
    QCOMPARE(lines.at(0), QStringLiteral("Serial_port_c: Start connection"));
    const QString expected = QFile::exists(QStringLiteral("/dev/ttymxc0"))
                                 ? QStringLiteral("Serial_port_c: Successfully connected to:  /dev/ttymxc0")
                                 : QStringLiteral("Serial_port_c: Failed connection to:  /dev/ttymxc0");
    QCOMPARE(lines.at(1), expected);
}

void TestInternalLink::linesComeUpInTheThreadOfTheLink()
{
    PseudoTerminal line;
    PseudoTerminalLink link(line);
    QSignalSpy spy(&link, &InternalLink::readyRead);
    QThread* deliveredIn = nullptr;
    connect(
        &link, &InternalLink::readyRead, this, [&] { deliveredIn = QThread::currentThread(); }, Qt::DirectConnection);

    QVERIFY(line.send(QByteArray::fromHex("82406400E58E27030A")));

    QTRY_COMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).toByteArray().toHex(), QByteArray("82406400e58e27030a"));
    QCOMPARE(deliveredIn, QThread::currentThread());
}

void TestInternalLink::framesGoDown()
{
    PseudoTerminal line;
    PseudoTerminalLink link(line);

    link.sendData(QByteArray::fromHex("82406400E58E27030A"));
    link.sendData(QByteArray());
    link.sendData(QByteArray::fromHex("820A"));

    QTRY_COMPARE(line.received().toHex(), QByteArray("82406400e58e27030a820a"));
}

void TestInternalLink::injectedBytesComeUp_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<QByteArray>("bytes");

    QTest::newRow("all") << 3 << QByteArray("a\0b", 3);
    QTest::newRow("some") << 1 << QByteArray("a");
    QTest::newRow("none") << 0 << QByteArray();
    QTest::newRow("negative length counts as none") << -1 << QByteArray();
}

void TestInternalLink::injectedBytesComeUp()
{
    QFETCH(int, length);
    QFETCH(QByteArray, bytes);
    PseudoTerminal line;
    PseudoTerminalLink link(line);
    QSignalSpy spy(&link, &InternalLink::readyRead);
    char buffer[] = {'a', '\0', 'b'};

    link.readData(buffer, length);

    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).toByteArray(), bytes);
}

void TestInternalLink::closeChangesNothing()
{
    PseudoTerminal line;
    PseudoTerminalLink link(line);
    QSignalSpy spy(&link, &InternalLink::readyRead);

    link.close();

    link.sendData("out\n");
    QTRY_COMPARE(line.received(), QByteArray("out\n"));
    QVERIFY(line.send("in\n"));
    QTRY_COMPARE(spy.count(), 1);
}

QTEST_GUILESS_MAIN(TestInternalLink)
#include "tst_internallink.moc"
