#pragma once

#include <QtTest>

/// What a test waits at most for what will surely come: longer than a busy machine holds up a thread or a child
/// process.
constexpr int PatienceMs = 30000;

// Qt's own take five seconds for that.
#undef QTRY_VERIFY
#undef QTRY_VERIFY2
#undef QTRY_COMPARE
#define QTRY_VERIFY(expression) QTRY_VERIFY_WITH_TIMEOUT((expression), PatienceMs)
#define QTRY_VERIFY2(expression, message) QTRY_VERIFY2_WITH_TIMEOUT((expression), message, PatienceMs)
#define QTRY_COMPARE(expression, expected) QTRY_COMPARE_WITH_TIMEOUT((expression), expected, PatienceMs)
