#include "eglinkworld.h"

#include <QMap>
#include <QTimer>

using namespace std::chrono_literals;

namespace {

const QMap<QString, EGLinkEvent> Events{
    {"CONFIGURE", CONFIGURE}, {"PERIODIC_DATA", PERIODIC_DATA}, {"CMD_ACK_FAILURE", CMD_ACK_FAILURE},
    {"CRC_ERROR", CRC_ERROR}, {"SEQ_NO_ERROR", SEQ_NO_ERROR},   {"NO_PERIODIC_DATA", NO_PERIODIC_DATA},
    {"DISABLE", DISABLE},     {"TIMER_EXPIRED", TIMER_EXPIRED}, {"CONFIGURE_NO_VRPO", CONFIGURE_NO_VRPO},
};

} // namespace

EgLinkWorld::EgLinkWorld(VirtualTime& time)
    : m_time(time)
    , m_machine(new StateMachine(egLinkTransitionTable()))
{
    QObject::connect(m_machine.data(), &StateMachine::stateUpdate, m_machine.data(),
                     [this](EGLinkState state) { m_reported = state; });
}

QStringList EgLinkWorld::choices() const
{
    return QStringList(Events.keys()) + QStringList{"1s", "5s"};
}

void EgLinkWorld::perform(const QString& choice)
{
    const EGLinkState before = m_machine->currentState();
    if (choice == "1s" || choice == "5s") {
        m_time.advance(choice == "1s" ? 1000ms : 5000ms);
    } else {
        m_machine->receiveEvent(Events.value(choice));
    }
    VirtualTime::settle();
    check(before, choice);
}

void EgLinkWorld::check(EGLinkState before, const QString& choice)
{
    const EGLinkState now = m_machine->currentState();
    const EGLinkState told = now == LINK_ERROR_INITIAL ? LINK_ERROR : now;
    if (m_reported != told) {
        violate(QStringLiteral("the outside was told %1 of state %2").arg(m_reported).arg(now));
    } else if (choice == "DISABLE" && now != NOT_CONFIGURED) {
        violate(QStringLiteral("disabled, and in state %1").arg(now));
    } else if (choice == "5s" && now == LINK_ERROR) {
        violate(QStringLiteral("in error for longer than its time"));
    } else if (before == NOT_CONFIGURED && now != NOT_CONFIGURED && choice != "CONFIGURE") {
        violate(QStringLiteral("not configured, and yet in state %1").arg(now));
    }
}

/// Configured and with data, the link works in the end, wherever it was.
void EgLinkWorld::finish()
{
    m_machine->receiveEvent(CONFIGURE);
    m_machine->receiveEvent(PERIODIC_DATA);
    m_time.advance(5000ms);
    if (m_machine->currentState() != OPERATIONAL) {
        violate(QStringLiteral("stays in state %1").arg(m_machine->currentState()));
    }
}

QByteArray EgLinkWorld::state() const
{
    const auto* const timer = m_machine->findChild<QTimer*>();
    const int left = timer != nullptr && timer->isActive() ? timer->remainingTime() : -1;
    return QByteArray::number(m_machine->currentState()) + ',' + QByteArray::number(left);
}
