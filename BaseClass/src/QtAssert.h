#ifndef VELANET_QTASSERT_H
#define VELANET_QTASSERT_H

// The library's fatal assertion: always compiled in, also in release builds.
// It reports the condition text, the source file text given by the caller
// (for example "src/HttpData") and a line, through Qt's qt_assert, which
// prints "ASSERT: ..." and aborts the process. Used for programming errors
// only; run-time failures are integer results.

#include <QtGlobal>

// A coverage build (scripts/coverage) writes its counters out before the
// abort, so the lines a death test runs to reach an assertion are counted.
#if defined(VELANET_COVERAGE)
extern "C" void __gcov_dump(void);
#define VELANET_BEFORE_FATAL() __gcov_dump()
#else
#define VELANET_BEFORE_FATAL() static_cast<void>(0)
#endif

// Condition checked; the message carries its text and the current line.
#define QT_ALWAYS_ASSERT(cond, fileText) \
    ((cond) ? static_cast<void>(0) : (VELANET_BEFORE_FATAL(), qt_assert(#cond, fileText, __LINE__)))

// Condition checked; the message carries its text and a fixed line number,
// for checks whose reported line is part of the library's contract.
#define QT_ALWAYS_ASSERT_AT(cond, fileText, lineNo) \
    ((cond) ? static_cast<void>(0) : (VELANET_BEFORE_FATAL(), qt_assert(#cond, fileText, lineNo)))

// Unreachable branch: reports the given text ("FALSE" or "false").
#define QT_ASSERT_UNREACHABLE(text, fileText) (VELANET_BEFORE_FATAL(), qt_assert(text, fileText, __LINE__))

#endif
