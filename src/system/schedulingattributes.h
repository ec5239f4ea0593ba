#pragma once

#include <QtGlobal>

/// What `sched_setattr` and `sched_getattr` take and give: the kernel's `struct sched_attr` in its first version, of 48
/// bytes. The C library declares neither, and the kernel's own header does not go together with the C library's.
///
/// `sched_setattr` sets all of it in one step: a field that is left 0 is set to 0, and does not keep what it was. Who
/// wants to change one thing reads the rest first, or knows it. Newer kernels take this size, too, and count the fields
/// that they have learnt since as 0.
struct SchedulingAttributes
{
    quint32 size = sizeof(SchedulingAttributes); ///< tells the kernel the version
    quint32 policy = 0;                          ///< SCHED_OTHER (0), SCHED_FIFO, ... of <sched.h>
    quint64 flags = 0;                           ///< 1: what the thread starts begins with the default again
    qint32 niceness = 0;                         ///< -20 to 19; of SCHED_OTHER
    quint32 priority = 0;                        ///< 1 to 99; of the real-time policies, 0 otherwise
    /// ns; without real-time priority the slice, which the kernel brings into 100,000 to 100,000,000; 0 lets it choose.
    quint64 runtime = 0;
    quint64 deadline = 0; ///< ns; of SCHED_DEADLINE, which no thread of the server uses
    quint64 period = 0;   ///< the same
};
static_assert(sizeof(SchedulingAttributes) == 48); // as many as the kernel reads for this version: no padding
