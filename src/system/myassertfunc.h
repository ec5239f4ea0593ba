#pragma once

/// Reports a broken invariant and ends the process abnormally (core dump where the system allows).
///
/// Writes the debug line `Fatal error in  "<file>" : <line> .` (two blanks after "in") and then Qt's fatal message
/// "Fatal". Callable from any thread; nothing is cleaned up. Where the server has set that up, the abort opens the
/// relay (relayoncrash.h); the restarted process decides anew.
///
/// @param file  source unit without extension, as operators know it from the log, for instance "src/tessaroserver".
/// @param line  the fixed number of the invariant inside that unit. It identifies the invariant, not today's text line,
///              so every unit names its numbers in an enumeration of its own.
[[noreturn]] void myAssertFunc(const char* file, unsigned int line);
