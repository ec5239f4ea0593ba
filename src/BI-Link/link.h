#pragma once

#include <QMetaType>
#include <QtGlobal>

// Values that all layers and services of the internal link share.

/// Where a payload comes from or goes to.
enum Link : quint8 {
    Internal = 0,  ///< the serial link to the base controller
    Graphical = 1, ///< the remote units
};
Q_DECLARE_METATYPE(Link)

/// How a packet is acknowledged: the upper two bits of its control byte.
enum MessageClass : quint8 {
    MSG_CLASS_INVALID = 0,     ///< never on the line
    MSG_CLASS_TRANSP_ACK = 1,  ///< data that the receiving transport layer acknowledges
    MSG_CLASS_SERVICE_ACK = 2, ///< data that the addressed service acknowledges with its reply
    MSG_CLASS_ACK = 3,         ///< acknowledgement, with a service's reply as payload or empty
};

/// Address of a service, one byte on the wire.
using serviceId_T = quint8;

/// All services of the internal link; 103 is not assigned.
enum ServiceId : serviceId_T {
    SERVICE_SYSTEM_EVENT = 100,
    SERVICE_PROCESS_DATA = 101,
    SERVICE_CONFIGURATION = 102,
    SERVICE_C_FALLBACK = 104,
    SERVICE_G_FALLBACK = 105,
    SERVICE_FB_CMD = 106,
    SERVICE_FB_PERIODIC = 107,
};
