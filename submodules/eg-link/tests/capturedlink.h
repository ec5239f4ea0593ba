#pragma once

#include "eglink.h"

#include <QSignalSpy>
#include <QTimer>

/// A link without sockets: tests hand it datagrams and look at what it would have sent.
class CapturedLink : public EGLink
{
public:
    static constexpr quint16 BaseId = 0x1234;

    CapturedLink(quint8 emap, quint32 vrpoByteCount, const EGLinkTuning& tuning = EGLinkTuning())
        : EGLink(QHostAddress("239.255.42.20"), 5825, vrpoByteCount, emap, BaseId, nullptr, tuning)
        , status(this, &EGLink::EGLinkStatus)
        , events(this, &EGLink::EGEvent)
        , toRgp(this, &EGLink::sendToRGP)
        , commands(this, &EGLink::sendCmd)
    {}

    using EGLink::handleDatagram;

    QTimer* timerOf(int intervalMs) const
    {
        for (QTimer* const timer : findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly)) {
            if (timer->interval() == intervalMs) {
                return timer;
            }
        }
        return nullptr;
    }

    /// First arguments of everything that a signal carried.
    template<typename Value>
    static QList<int> numbers(const QSignalSpy& spy)
    {
        QList<int> all;
        for (const QList<QVariant>& arguments : spy) {
            all.append(static_cast<int>(arguments.first().value<Value>()));
        }
        return all;
    }

    QList<int> reported() const { return numbers<quint8>(status); }
    QList<int> raised() const { return numbers<EGLinkEvent>(events); }

    static QList<QByteArray> blocks(const QSignalSpy& spy)
    {
        QList<QByteArray> all;
        for (const QList<QVariant>& arguments : spy) {
            all.append(arguments.first().toByteArray());
        }
        return all;
    }

    QList<QByteArray> sent;
    int socketBuilds = 0;
    bool networkWorks = true;

    QSignalSpy status;
    QSignalSpy events;
    QSignalSpy toRgp;
    QSignalSpy commands;

protected:
    void configureMulticastSockets() override { ++socketBuilds; }

    bool transmit(const QByteArray& packet) override
    {
        if (networkWorks) {
            sent.append(packet);
        }
        return networkWorks;
    }
};

/// A link that has been started; its log lines up to here are not of interest.
struct StartedLink : CapturedLink
{
    explicit StartedLink(quint8 emap, quint32 vrpoByteCount = 10, const EGLinkTuning& tuning = EGLinkTuning())
        : CapturedLink(emap, vrpoByteCount, tuning)
    {
        run();
    }

    void forgetSignals()
    {
        status.clear();
        events.clear();
    }
};
