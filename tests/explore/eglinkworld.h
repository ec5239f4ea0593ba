#pragma once

#include "statemachine.h"
#include "virtualtime.h"
#include "world.h"

#include <QScopedPointer>

/// The state machine of the link to the machine controller: every event of its table, and time.
class EgLinkWorld : public World
{
public:
    explicit EgLinkWorld(VirtualTime& time);

    QStringList choices() const override;
    void perform(const QString& choice) override;
    QByteArray state() const override;
    void finish() override;

private:
    void check(EGLinkState before, const QString& choice);

    VirtualTime& m_time;
    QScopedPointer<StateMachine> m_machine;
    int m_reported = NOT_CONFIGURED;
};
