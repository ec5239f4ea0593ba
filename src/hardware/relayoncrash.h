#pragma once

/// From now on the process opens the relay by itself when a signal ends it that can be caught: a crash, a fatal
/// assertion, a hang-up. It does so in the signal handler, with one system call, before the kernel writes a core dump
/// or anybody else hears of it; then the signal takes its course, and the process ends as it would have ended. SIGKILL,
/// and a stack that has no room left for a handler, are the service manager's.
///
/// Signals that somebody has a handler for already (a sanitizer, a test) are left to him. May be called again, for
/// another line.
/// @param drive  a descriptor of the drive line's level, for writing; a copy of it is kept for the rest of the process.
void openRelayOnCrash(int drive);
