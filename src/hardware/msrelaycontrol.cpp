#include "msrelaycontrol.h"

#include "gpiolines.h"
#include "myassertfunc.h"
#include "relayoncrash.h"

#include <QDebug>
#include <QFile>

#include <chrono>

#include <fcntl.h>

namespace {

constexpr char SourceUnit[] = "src/hardware/msrelaycontrol";

enum FatalLine : unsigned int {
    ExportNotOpened = 101,
    DirectionNotOpened = 111,
    DirectionNotWritten = 112,
    DriveNotInitialized = 121,
    DriveNotOpened = 122,
    DriveStateUnknown = 123,
    DriveNotWritten = 124,
    MonitorNotInitialized = 131,
    MonitorNotOpened = 132,
    MonitorNotRead = 133,
    MonitorUnexpected = 134,
};

constexpr int MonitorBytes = 3; ///< the level, a line end, and one byte that should not be there

constexpr std::chrono::milliseconds MachineStopCheckDelay{1000};

// The files belong to the kernel: they are never created. Unbuffered, so that a failing write is seen at the write.
constexpr QIODevice::OpenMode WriteMode = QIODevice::WriteOnly | QIODevice::ExistingOnly | QIODevice::Unbuffered;

void require(bool holds, FatalLine line)
{
    if (!holds) {
        myAssertFunc(SourceUnit, line);
    }
}

} // namespace

MsRelayControl::MsRelayControl(QObject* parent)
    : MsRelayControl(QLatin1String(GpioFolder), parent)
{}

MsRelayControl::MsRelayControl(const QString& gpioFolder, QObject* parent)
    : QObject(parent)
    , m_gpioFolder(gpioFolder)
    , m_drive(QFile::encodeName(lineFile(DriveLine, "value")), O_WRONLY | O_TRUNC)
    , m_monitor(QFile::encodeName(lineFile(MonitorLine, "value")), O_RDONLY)
    , machineStopPressedTimer(new QTimer)
{
    qDebug() << "MsRelayControl::MsRelayControl(QObject *parent) : QObject(parent)";
    connect(machineStopPressedTimer, &QTimer::timeout, this, &MsRelayControl::machineStopPressedTimerTimeout);
    exportLines();
    setDirection(DriveLine, "out");
    setDirection(MonitorLine, "in");
    m_drive.keep();
    m_monitor.keep();
    initialized = true;
    newEvent(STARTING_EVENT);
}

MsRelayControl::~MsRelayControl()
{
    delete machineStopPressedTimer;
}

int MsRelayControl::getRelayState()
{
    require(initialized, MonitorNotInitialized);
    char level[MonitorBytes] = {};
    const LevelFile::Outcome outcome = m_monitor.read(level, sizeof(level));
    if (outcome == LevelFile::Outcome::NotOpened) {
        qDebug() << "Failed to read es relay monitor";
        myAssertFunc(SourceUnit, MonitorNotOpened);
    }
    require(outcome == LevelFile::Outcome::Done, MonitorNotRead);
    // Active low. A monitor that yields nothing leaves the zero byte and is as unexpected as any other character.
    require(level[0] == '0' || level[0] == '1', MonitorUnexpected);
    return level[0] == '0' ? 1 : 0;
}

void MsRelayControl::setMSRelayState(MSRelayState state)
{
    require(initialized, DriveNotInitialized);
    require(state == MS_RELAY_OPEN || state == MS_RELAY_CLOSED, DriveStateUnknown);
    const LevelFile::Outcome outcome = m_drive.write(state == MS_RELAY_CLOSED ? '1' : '0');
    require(outcome != LevelFile::Outcome::NotOpened, DriveNotOpened);
    require(outcome == LevelFile::Outcome::Done, DriveNotWritten);
}

void MsRelayControl::newEvent(const MSEvents event)
{
    if (m_isShutDown) {
        return;
    }
    qDebug() << "MsRelayControl::newEvent( const MSEvents event )";
    switch (event) {
    case STARTING_EVENT:
        qDebug() << "MSEvents::RUNNING_STARTING_EVENT";
        setWantedState(CLOSED);
        break;
    case BI_FAIL_EVENT:
        qDebug() << "MSEvents::BI_FAIL_EVENT";
        setWantedState(OPEN);
        break;
    }
}

void MsRelayControl::setWantedState(MSState state)
{
    if (state != currentMSState) {
        currentMSState = state;
        updateState();
    }
}

void MsRelayControl::updateState()
{
    qDebug() << "MsRelayControl::updateState( void )";
    switch (currentMSState) {
    case OPEN:
        qDebug() << "MSState::OPEN";
        setMSRelayState(MS_RELAY_OPEN);
        break;
    case CLOSED:
        qDebug() << "MSState::CLOSED";
        setMSRelayState(MS_RELAY_CLOSED);
        break;
    }
}

bool MsRelayControl::openForShutdown()
{
    machineStopPressedTimer->stop();
    currentMSState = OPEN;
    return openFromOutside();
}

bool MsRelayControl::openFromOutside()
{
    m_isShutDown = true;
    return m_drive.write('0') == LevelFile::Outcome::Done;
}

void MsRelayControl::openOnCrash() const
{
    openRelayOnCrash(m_drive.kept());
}

void MsRelayControl::systemStateSlot(const quint8 state)
{
    switch (state) {
    case 0: newEvent(BI_FAIL_EVENT); break;
    case 1:
    case 2: newEvent(STARTING_EVENT); break;
    default: break;
    }
}

void MsRelayControl::machineStopPressed()
{
    qDebug() << "MsRelayControl::machineStopPressed( void )";
    if (!m_isShutDown && !machineStopPressedTimer->isActive()) {
        machineStopPressedTimer->start(MachineStopCheckDelay);
    }
}

void MsRelayControl::machineStopPressedTimerTimeout()
{
    if (getRelayState() == MS_RELAY_CLOSED) {
        qDebug() << "Relay closed";
        newEvent(BI_FAIL_EVENT);
        emit bcMachineStopFail();
    } else {
        qDebug() << "RelayOpen";
    }
    machineStopPressedTimer->stop();
}

void MsRelayControl::exportLines() const
{
    QFile exporter(m_gpioFolder + QLatin1String("/export"));
    require(exporter.open(WriteMode), ExportNotOpened);
    exporter.write(QByteArray::number(DriveLine));
    exporter.write(QByteArray::number(MonitorLine));
}

void MsRelayControl::setDirection(int line, const QByteArray& direction) const
{
    QFile file(lineFile(line, "direction"));
    require(file.open(WriteMode), DirectionNotOpened);
    require(file.write(direction) == direction.size(), DirectionNotWritten);
}

QString MsRelayControl::lineFile(int line, const char* name) const
{
    return QStringLiteral("%1/gpio%2/%3").arg(m_gpioFolder).arg(line).arg(QLatin1String(name));
}
