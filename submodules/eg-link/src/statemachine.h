#pragma once

#include <QMetaType>
#include <QObject>
#include <QVector>

class QTimer;

/// Status of the link to the machine controller, as reported outward (one byte of the status record).
enum EGLinkState : int {
    NOT_CONFIGURED = 0,
    OPERATIONAL = 1,
    NO_LINK = 2,
    LINK_ERROR = 3,
    INTERFACE_ERROR = 4,
    DATA_ERROR = 5,
    PASSIVE = 6,
    /// Configured, and nothing heard yet. Never reported: the outside sees LINK_ERROR. The number is far away from the
    /// reportable ones so that the two cannot be confused.
    LINK_ERROR_INITIAL = 10002,
};

/// What the link tells its state machine.
enum EGLinkEvent : int {
    CONFIGURE = 0,
    PERIODIC_DATA = 1,
    CMD_ACK_FAILURE = 2,
    CRC_ERROR = 3,
    SEQ_NO_ERROR = 4,
    NO_PERIODIC_DATA = 5,
    DISABLE = 6,
    TIMER_EXPIRED = 7,
    CONFIGURE_NO_VRPO = 8,
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
