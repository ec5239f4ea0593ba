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
///
/// | class | sender                                   | receiver                                               |
/// |-------|------------------------------------------|--------------------------------------------------------|
/// | 1     | repeats it until a 3 of its number comes | hands it to the service, then sends an empty 3         |
/// | 2     | the same                                 | hands it to the service, which sends a 3 with a reply  |
/// | 3     | sends it once                            | takes its packet of that number as received            |
///
/// A 3 that gets lost lets the other side repeat what has been handled already: what must not be done twice for one
/// packet is safe with neither class.
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
    SERVICE_SYSTEM_EVENT = 100,  ///< events of one byte, both ways
    SERVICE_PROCESS_DATA = 101,  ///< in: the process image; out: the status record, every 500 ms
    SERVICE_CONFIGURATION = 102, ///< values of four bytes; both sides ask
    SERVICE_C_FALLBACK = 104,    ///< service messages of remote units, both ways
    SERVICE_G_FALLBACK = 105,    ///< GLink frames of remote units without TCP, both ways
    SERVICE_FB_CMD = 106,        ///< field-bus commands of at most 16 bytes, both ways
    SERVICE_FB_PERIODIC = 107,   ///< in: periodic field-bus data
};
