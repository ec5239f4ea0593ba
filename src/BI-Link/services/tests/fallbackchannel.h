#pragma once

#include "gfallback_service_c.h"

#include <QSignalSpy>

constexpr serviceId_T Id = 105; // of the messages to units

/// A frame header as a remote unit would see it; the CRCs do not matter to this service.
inline QByteArray frame(char msgType, int size, char fill)
{
    QByteArray bytes(size, fill);
    bytes.replace(0, 5, QByteArray::fromHex("0000010300"));
    bytes[4] = msgType;
    return bytes;
}

inline QByteArray message(int size, char fill = 'm')
{
    return frame(0, size, fill);
}

inline QByteArray acknowledgement(char fill = 'a')
{
    return frame(1, 21, fill);
}

/// The service with what it has sent, and a base controller that says "next".
struct FallbackChannel
{
    GfallbackServiceC service{nullptr, Id};
    QSignalSpy spy{&service, &ServiceBase::readyReadFromService};
    QSignalSpy givenBackSpy{&service, &GfallbackServiceC::givenBack};

    int count() const { return spy.count(); }
    QByteArray block(int index) const { return spy.at(index).at(0).toByteArray(); }
    QByteArray lastHeader() const { return block(count() - 1).left(4).toHex(); }
    QByteArray lastData() const { return block(count() - 1).mid(4); }
    QByteArrayList givenBack() const { return givenBackSpy.last().at(1).value<QByteArrayList>(); }
    void next(const char* remoteId = "0700") { service.readData_(QByteArray::fromHex(remoteId)); }
};
