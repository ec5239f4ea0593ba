#pragma once

#include "patience.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QTimer>
#include <QtTest>

/// Runs the event loop until `isDone` gives true, for `PatienceMs` at most. Looks after every batch of events, where
/// QTRY_VERIFY would sleep in steps of 50 ms. @return whether it became true.
template<typename Condition>
bool eventually(Condition isDone)
{
    const QDeadlineTimer deadline(PatienceMs);
    QTimer tick; // the condition may depend on other threads, which do not wake this one
    tick.start(5);
    while (!isDone()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

/// Checks, inside a test function, that the condition becomes true in the running event loop.
#define VERIFY_EVENTUALLY(condition) QVERIFY2(eventually([&] { return (condition); }), #condition)
