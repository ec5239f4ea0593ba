#pragma once

#include <QMetaType>
#include <QObject>
#include <QVector>

class QTimer;

/// Status of the link to the machine controller, as reported outward (one byte of the status record).
enum EGLinkState : int {
    NOT_CONFIGURED = 0, ///< before CONFIGURE, and after DISABLE
    OPERATIONAL = 1,
    NO_LINK = 2, ///< known to those who read the state; no row of the table leads here
    LINK_ERROR = 3,
    INTERFACE_ERROR = 4, ///< see NO_LINK
    DATA_ERROR = 5,      ///< see NO_LINK
    PASSIVE = 6,         ///< see NO_LINK
    /// Configured, and nothing heard yet. Never reported: the outside sees LINK_ERROR. The number is far away from the
    /// reportable ones so that the two cannot be confused.
    LINK_ERROR_INITIAL = 10002,
};

/// What the link tells its state machine.
enum EGLinkEvent : int {
    CONFIGURE = 0,         ///< the link begins, and waits for data
    PERIODIC_DATA = 1,     ///< a whole set has arrived
    CMD_ACK_FAILURE = 2,   ///< a command was repeated in vain, or another one than expected was acknowledged
    CRC_ERROR = 3,         ///< nobody raises it: damaged packets are dropped
    SEQ_NO_ERROR = 4,      ///< nobody raises it
    NO_PERIODIC_DATA = 5,  ///< no whole set for too long; comes again as long as there is none
    DISABLE = 6,           ///< the link ends
    TIMER_EXPIRED = 7,     ///< raised here, after the time of a row
    CONFIGURE_NO_VRPO = 8, ///< the link begins, and no data is to be waited for
};

Q_DECLARE_METATYPE(EGLinkState)
Q_DECLARE_METATYPE(EGLinkEvent)

/// One row of a transition table.
struct Transition
{
    EGLinkState currentState;          ///< state in which the row applies
    EGLinkEvent event;                 ///< event that fires it
    EGLinkState newState;              ///< state afterwards
    EGLinkState reportedNewState;      ///< what the outside is told when the state changes
    quint16 automaticTransitionTimeMs; ///< not 0: TIMER_EXPIRED follows after this time unless another row fires first
};

/// Quiet time after which a link in error is taken for healthy again. Recovery is by time alone.
constexpr quint16 EGLinkRecoveryTimeMs = 5000;

/// The table of the machine-controller link. Tests pass a shorter recovery time.
QVector<Transition> egLinkTransitionTable(quint16 recoveryTimeMs = EGLinkRecoveryTimeMs);

/// A state machine that is nothing but its table: the first row that matches (current state, event) fires, and an event
/// without a row is ignored silently.
///
/// Lives in the thread of its creator and must be called there; nothing is locked. It starts in the current state of
/// the first row without reporting it. Registers the meta-types EGLinkState and EGLinkEvent.
class StateMachine : public QObject
{
    Q_OBJECT

public:
    /// @param table copied, never changed afterwards. Without rows the machine stays in NOT_CONFIGURED for good.
    explicit StateMachine(const QVector<Transition>& table, QObject* parent = nullptr);

    /// The state itself, not the one reported.
    EGLinkState currentState() const { return m_currentState; }

public slots:
    /// The change, its report and the timer are done when this returns; receivers of the report in the same thread run
    /// in it.
    void receiveEvent(const EGLinkEvent event);
    /// Raises TIMER_EXPIRED behind whatever the event loop already holds.
    void timerExpired();

signals:
    /// The state has changed; carries the reported state of the row. Not emitted by rows that stay in their state.
    void stateUpdate(const EGLinkState state);

private:
    void handleTransition(const Transition& transition);
    void rearmTimer(quint16 timeMs);

    const QVector<Transition> m_transitionTable;
    EGLinkState m_currentState;
    QTimer* m_transitionTimer = nullptr; ///< only if a row of the table has a time
};
