#pragma once

#include "levelfile.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>

#include <atomic>

/// Drives the machine-stop relay through GPIO line 37 and reads its contact back on line 38 (sysfs interface).
///
/// The relay is closed from construction on, opened while the internal link has failed, and closed again when the link
/// is back. It therefore stays closed while a link that never came up is silent. A machine stop of the armed remote
/// unit must open the relay within a second; one that is still closed then is opened from here and reported.
///
/// | what happens                               | relay wanted open   | relay wanted closed             |
/// |--------------------------------------------|---------------------|---------------------------------|
/// | construction: wanted open until then       | closes              | –                               |
/// | the link starts or runs                    | closes              | –                               |
/// | the link fails                             | –                   | opens                           |
/// | 1 s after a machine stop: contact open     | –                   | –                               |
/// | 1 s after a machine stop: contact closed   | `bcMachineStopFail` | opens, then `bcMachineStopFail` |
/// | `openForShutdown`, `openFromOutside`       | writes 0 again      | opens                           |
///
/// "–" is no write at all: the line is written when the wish changes, and what somebody else has written to it
/// meanwhile is not seen. Nor is the contact looked at, but for that one check.
///
/// Lives in a thread of its own, in which it is made, so that nothing that the server has to do elsewhere delays it. A
/// GPIO file that does not behave ends the process by the fatal assertion of "src/hardware/msrelaycontrol"; only the
/// writes to the export file are unchecked, for they fail on lines that are exported already.
class MsRelayControl : public QObject
{
    Q_OBJECT

public:
    /// Levels of the drive line.
    enum MSRelayState : quint8 {
        MS_RELAY_OPEN = 0,
        MS_RELAY_CLOSED = 1,
    };
    /// What the relay is wanted to be.
    enum MSState : quint8 {
        OPEN = 0,
        CLOSED = 1,
    };
    /// What changes the wish.
    enum MSEvents : quint8 {
        BI_FAIL_EVENT = 0,  ///< open: the internal link has failed, or a machine stop had no effect
        STARTING_EVENT = 1, ///< close: the internal link is back
    };

    /// Sets both lines up under /sys/class/gpio and closes the relay. When it returns the drive line is at 1, and a
    /// descriptor for each line is kept for as long as the object lives.
    explicit MsRelayControl(QObject* parent = nullptr);
    /// The same on another GPIO folder.
    MsRelayControl(const QString& gpioFolder, QObject* parent);
    /// Leaves the line as it is: openForShutdown() is what opens it.
    ~MsRelayControl() override;

    /// @return 1 when the monitor line shows the relay closed, 0 when it shows it open.
    /// Reads the file of the line, each time anew. What it holds besides '0' and '1' is fatal.
    int getRelayState();
    /// Writes the drive line and returns when the kernel has it. The contact follows as fast as the relay does, which
    /// is not waited for.
    void setMSRelayState(MSRelayState state);

    /// Changes the wish, and drives the relay if it is another one; after `openForShutdown` nothing. In this object's
    /// thread, like all that follows, unless it says otherwise.
    void newEvent(const MSEvents event);
    /// Drives the relay to the wanted state, whatever it was driven to before.
    void updateState();

    /// Opens the relay as the last act of an orderly end; whatever arrives afterwards leaves it open. Never fatal.
    /// @return false if the drive line could not be written.
    bool openForShutdown();
    /// The same from another thread, when this object's thread does not answer. An event that is just being handled may
    /// still come after it. One system call beside an opening and a closing; takes no lock.
    bool openFromOutside();
    /// From now on the process opens the relay by itself when it crashes (see openRelayOnCrash). For the one object
    /// that a process has; stays so when the object has gone.
    void openOnCrash() const;

public slots:
    /// States of the internal link: 0 opens the relay, 1 and 2 close it, others change nothing.
    void systemStateSlot(const quint8 state);
    /// Starts the check one second from now, unless one is pending already: a unit that repeats its machine stop does
    /// not put the check off. Nothing is opened here; that is the base controller's first.
    void machineStopPressed();
    /// Looks at the contact. What it finds closed is opened and stays so until the link's next start.
    void machineStopPressedTimerTimeout();

signals:
    /// The relay was still closed one second after a machine stop; by now it has been driven open. Wakes the
    /// service-layer thread, which lets the internal link fail.
    void bcMachineStopFail();

private:
    void setWantedState(MSState state);
    void exportLines() const;
    void setDirection(int line, const QByteArray& direction) const;
    QString lineFile(int line, const char* name) const;

    const QString m_gpioFolder;
    LevelFile m_drive;
    LevelFile m_monitor;
    bool initialized = false;              ///< both lines are set up
    std::atomic<bool> m_isShutDown{false}; ///< never taken back; set from any thread
    QTimer* machineStopPressedTimer;       ///< runs while a check is pending
    MSState currentMSState = OPEN;         ///< the wish; the constructor changes it, and so closes the relay
};
