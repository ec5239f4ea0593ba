#pragma once

#include <QString>

#include <functional>

/// How a piece of code that is expected to end its process ended it.
struct FatalOutcome
{
    bool diedOfAbort = false; ///< ended by SIGABRT, as Qt's fatal messages do
    int exitCode = -1;        ///< exit code when it ended by itself, else -1
    QString log;              ///< everything that the child wrote to its standard error stream
};

/// Runs `action` in a forked copy of the test process and tells how that copy ended.
///
/// Call it from a single-threaded point of the test. When `action` returns, the child exits with code 0 without running
/// destructors; a child that is still alive after two minutes is killed.
FatalOutcome outcomeOf(const std::function<void()>& action);

/// The two lines that the fatal assertion of `file` and `line` leaves in the log, when no message pattern is set.
QString fatalAssertionLog(const QString& file, unsigned int line);

/// Checks, inside a test function, that `action` ends the process by the fatal assertion of `file` and `line`.
#define VERIFY_FATAL(file, line, action)                                                                               \
    do {                                                                                                               \
        const FatalOutcome outcome_ = outcomeOf([&] { action; });                                                      \
        QVERIFY2(outcome_.diedOfAbort, qPrintable(outcome_.log));                                                      \
        QVERIFY2(outcome_.log.endsWith(fatalAssertionLog(file, line)), qPrintable(outcome_.log));                      \
    } while (false)
