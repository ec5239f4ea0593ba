#pragma once

#include "service_base.h"

class Configuration;
class QTimer;

/// Keeps the state of the internal link and exchanges system events with the base controller.
///
/// Without a link it sends RESET every 100 ms until one is acknowledged; it then has the configuration exchanged and
/// runs, until the link fails, or the base controller resets or reconfigures. An event is one byte, sent with message
/// class 1, in both directions.
///
/// | state      | event                        | becomes    | on entering it                                         |
/// |------------|------------------------------|------------|--------------------------------------------------------|
/// | NO_BI_LINK | ACK_RECIEVED                 | STARTING   | no more RESET; has the values fetched; CONFIG_FINISHED |
/// | STARTING   | CONFIG_FINISHED              | RUN        | –                                                      |
/// | STARTING   | BI_FAIL                      | NO_BI_LINK | RESET now and every 100 ms                             |
/// | RUN        | RECONFIG                     | STARTING   | as above; the relay stays closed                       |
/// | RUN        | RESET, BI_FAIL               | NO_BI_LINK | RESET now and every 100 ms; the relay opens            |
///
/// Lives in the service-layer thread; its slots may be reached from the main thread through queued connections.
class SystemEventService : public ServiceBase
{
    Q_OBJECT

public:
    enum SEStates : quint8 {
        NO_BI_LINK = 0,
        RUN = 1,
        STARTING = 2, ///< passed through at once; nobody outside ever sees it
    };

    /// Event codes. The base controller may send any byte, so a value need not be one of these.
    enum Events : quint8 {
        RESET = 0,             ///< in both directions
        RECONFIG = 100,        ///< in both directions
        RELEASEARM = 101,      ///< to the base controller
        ECLINKRESET = 102,     ///< to the base controller
        EGRECONFIG = 103,      ///< to the base controller
        ACK_RECIEVED = 200,    ///< internal: a RESET was acknowledged
        BI_FAIL = 201,         ///< internal: the link has failed
        CONFIG_FINISHED = 202, ///< internal: the exchange of the configuration has begun
    };

    /// Starts without a link: sends a first RESET and begins to repeat it. That first one reaches nobody, since nothing
    /// can be connected yet.
    SystemEventService(QObject* parent, quint8 serviceId, Configuration* configuration);

    /// The event's name for the log, "UNDEF EVENT" for a code without one.
    static QString Events2String(Events event);

    /// Sends an event to the base controller, whatever the state. Without a link it waits behind a RESET: it
    /// follows when that is acknowledged, and is dropped with it otherwise.
    void sendData(Events event);

    /// Handles an event from wherever it comes. One without a row in the transition table changes nothing; every one is
    /// told by `systemNewEvent`, after all changes of state that it has caused.
    void newEvent(Events event);

    /// Has the configuration exchanged, and goes on to RUN: the exchange has begun then, not ended.
    void reConfig();

public slots:
    /// An event from the base controller. An empty payload counts as RESET; the codes that only this side may raise are
    /// told by `systemNewEvent` and change no state.
    void readData(QByteArray data, Link fromLink, quint8 messageClass) override;

    void sendReset();
    void sendECLinkReset();
    void sendEGReconfig();
    /// Tells the base controller to fetch its values anew: the configuration store holds a new configuration.
    void sendReconfig();
    /// Asks the base controller to disarm the remote unit.
    void releaseArm();
    /// Reloads the configuration store, waiting for the disk, then tells the base controller to fetch its values anew.
    /// The server has that done elsewhere (ConfigurationReload) and only tells, by sendReconfig().
    void configChanged();

    /// From the transport layer: the base controller has acknowledged a RESET.
    void resetAckRecieved();
    /// From the transport layer, and from the machine-stop relay when a machine stop has failed.
    void internalLinkFailed();

signals:
    /// An event has been handled, of whatever origin; `event` is its code.
    void systemNewEvent(quint8 event);
    /// The state after a change. Reaching RUN is told twice, once on behalf of STARTING.
    void systemStateChanged(quint8 state);
    /// Declared for listeners of long standing; never emitted.
    void systemShutdown();
    void systemSelected(bool selected);
    /// The values that the base controller supplies are to be fetched now.
    void BCConfigChanged();

private:
    void updateState();
    void enterNoLink();
    void enterStarting();

    SEStates currentState = NO_BI_LINK;
    QTimer* sendResetTimer;
    Configuration* configuration;
};
