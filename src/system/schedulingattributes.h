#pragma once

#include <QtGlobal>

/// What `sched_setattr` and `sched_getattr` take and give: the kernel's `struct sched_attr` in its first version, of 48
/// bytes. The C library declares neither, and the kernel's own header does not go together with the C library's.
struct SchedulingAttributes
{
    quint32 size = sizeof(SchedulingAttributes);
    quint32 policy = 0;
    quint64 flags = 0;
    qint32 niceness = 0;
    quint32 priority = 0;
    quint64 runtime = 0; ///< ns; without real-time priority: the slice
    quint64 deadline = 0;
    quint64 period = 0;
};
static_assert(sizeof(SchedulingAttributes) == 48);
