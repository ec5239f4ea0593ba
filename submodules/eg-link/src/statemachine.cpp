#include "statemachine.h"

#include <QDebug>
#include <QTimer>

#include <algorithm>

QVector<Transition> egLinkTransitionTable(quint16 recoveryTimeMs)
{
    return {
        // In this state, this event leads to that state; this is reported; after that many ms the timer expires.
        {NOT_CONFIGURED, CONFIGURE, LINK_ERROR_INITIAL, LINK_ERROR, 0},
        {OPERATIONAL, CMD_ACK_FAILURE, LINK_ERROR, LINK_ERROR, recoveryTimeMs},
        {OPERATIONAL, NO_PERIODIC_DATA, LINK_ERROR, LINK_ERROR, recoveryTimeMs},
        {OPERATIONAL, DISABLE, NOT_CONFIGURED, NOT_CONFIGURED, 0},
        {LINK_ERROR, CMD_ACK_FAILURE, LINK_ERROR, LINK_ERROR, recoveryTimeMs},
        {LINK_ERROR, NO_PERIODIC_DATA, LINK_ERROR, LINK_ERROR, recoveryTimeMs},
        {LINK_ERROR, TIMER_EXPIRED, OPERATIONAL, OPERATIONAL, 0},
        {LINK_ERROR, DISABLE, NOT_CONFIGURED, NOT_CONFIGURED, 0},
        {LINK_ERROR_INITIAL, PERIODIC_DATA, OPERATIONAL, OPERATIONAL, 0},
        {LINK_ERROR_INITIAL, CONFIGURE_NO_VRPO, OPERATIONAL, OPERATIONAL, 0},
        {LINK_ERROR_INITIAL, DISABLE, NOT_CONFIGURED, NOT_CONFIGURED, 0},
    };
}

StateMachine::StateMachine(const QVector<Transition>& table, QObject* parent)
    : QObject(parent)
    , m_transitionTable(table)
    , m_currentState(table.isEmpty() ? NOT_CONFIGURED : table.first().currentState)
{
    qDebug() << "StateMachine::StateMachine()";
    // Both types travel through queued calls, the machine's own among them.
    qRegisterMetaType<EGLinkEvent>("EGLinkEvent");
    qRegisterMetaType<EGLinkState>("EGLinkState");

    const bool timed = std::any_of(m_transitionTable.cbegin(), m_transitionTable.cend(),
                                   [](const Transition& row) { return row.automaticTransitionTimeMs != 0; });
    if (timed) {
        m_transitionTimer = new QTimer(this);
        m_transitionTimer->setSingleShot(true);
        connect(m_transitionTimer, &QTimer::timeout, this, &StateMachine::timerExpired);
    }
}

void StateMachine::receiveEvent(const EGLinkEvent event)
{
    const auto row =
        std::find_if(m_transitionTable.cbegin(), m_transitionTable.cend(), [this, event](const Transition& candidate) {
            return candidate.currentState == m_currentState && candidate.event == event;
        });
    if (row != m_transitionTable.cend()) {
        handleTransition(*row);
    }
}

void StateMachine::timerExpired()
{
    QMetaObject::invokeMethod(this, "receiveEvent", Qt::QueuedConnection, Q_ARG(EGLinkEvent, TIMER_EXPIRED));
}

void StateMachine::handleTransition(const Transition& transition)
{
    // Also for rows that stay in their state: a repeated error pushes the automatic recovery back.
    rearmTimer(transition.automaticTransitionTimeMs);
    if (transition.newState != m_currentState) {
        m_currentState = transition.newState;
        emit stateUpdate(transition.reportedNewState);
    }
}

void StateMachine::rearmTimer(quint16 timeMs)
{
    if (m_transitionTimer == nullptr) {
        return;
    }
    m_transitionTimer->stop();
    if (timeMs != 0) {
        m_transitionTimer->start(timeMs);
    }
}
