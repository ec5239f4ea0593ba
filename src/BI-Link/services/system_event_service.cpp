#include "system_event_service.h"

#include "configuration.h"

#include <QDebug>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <iterator>

namespace {

using Service = SystemEventService;

constexpr std::chrono::milliseconds ResetInterval{100};

struct EventName
{
    Service::Events event;
    const char* name;
};

constexpr EventName EventNames[] = {
    {Service::RESET, "RESET"},           {Service::RECONFIG, "RECONFIG"},
    {Service::RELEASEARM, "RELEASEARM"}, {Service::ECLINKRESET, "ECLINKRESET"},
    {Service::EGRECONFIG, "EGRECONFIG"}, {Service::ACK_RECIEVED, "ACK_RECIEVED"},
    {Service::BI_FAIL, "BI_FAIL"},       {Service::CONFIG_FINISHED, "CONFIG_FINISHED"},
};

struct StateChange
{
    Service::Events event;
    Service::SEStates from;
    Service::SEStates to;
};

constexpr StateChange StateChanges[] = {
    {Service::RESET, Service::RUN, Service::NO_BI_LINK},
    {Service::RECONFIG, Service::RUN, Service::STARTING},
    {Service::ACK_RECIEVED, Service::NO_BI_LINK, Service::STARTING},
    {Service::BI_FAIL, Service::RUN, Service::NO_BI_LINK},
    {Service::BI_FAIL, Service::STARTING, Service::NO_BI_LINK},
    {Service::CONFIG_FINISHED, Service::STARTING, Service::RUN},
};

/// Whether only this side may raise it: from the controller such a code is told and changes nothing.
bool isInternal(Service::Events event)
{
    return event == Service::ACK_RECIEVED || event == Service::BI_FAIL || event == Service::CONFIG_FINISHED;
}

} // namespace

SystemEventService::SystemEventService(QObject* parent, quint8 id, Configuration* config)
    : ServiceBase(parent, static_cast<signed char>(id))
    , sendResetTimer(new QTimer(this))
    , configuration(config)
{
    connect(sendResetTimer, &QTimer::timeout, this, &SystemEventService::sendReset);
    qDebug() << "sendResetTimer initiated";
    updateState();
}

QString SystemEventService::Events2String(Events event)
{
    const auto* const found = std::find_if(std::cbegin(EventNames), std::cend(EventNames),
                                           [event](const EventName& row) { return row.event == event; });
    return QString::fromLatin1(found == std::cend(EventNames) ? "UNDEF EVENT" : found->name);
}

void SystemEventService::sendData(Events event)
{
    qDebug() << "SystemEventService::sendData" << Events2String(event);
    emit readyReadFromService(QByteArray(1, static_cast<char>(event)), Internal, serviceId, MSG_CLASS_TRANSP_ACK);
}

void SystemEventService::newEvent(Events event)
{
    qDebug() << "SystemEventService::newEvent" << Events2String(event);
    const auto* const change =
        std::find_if(std::cbegin(StateChanges), std::cend(StateChanges),
                     [&](const StateChange& row) { return row.event == event && row.from == currentState; });
    if (change != std::cend(StateChanges)) {
        currentState = change->to;
        updateState();
    }
    emit systemNewEvent(event);
}

void SystemEventService::reConfig()
{
    emit BCConfigChanged();
    newEvent(CONFIG_FINISHED);
}

void SystemEventService::readData(QByteArray data, Link fromLink, quint8 messageClass)
{
    Q_UNUSED(fromLink)
    Q_UNUSED(messageClass)
    const char code = data.isEmpty() ? '\0' : data.at(0);
    qDebug() << "rses: " << data << " - " << code << " - system event service ";
    const auto event = static_cast<Events>(code);
    if (isInternal(event)) {
        qDebug() << "SystemEventService::newEvent" << Events2String(event);
        emit systemNewEvent(event);
        return;
    }
    newEvent(event);
}

void SystemEventService::sendReset()
{
    sendData(RESET);
}

void SystemEventService::sendECLinkReset()
{
    sendData(ECLINKRESET);
}

void SystemEventService::sendEGReconfig()
{
    sendData(EGRECONFIG);
}

void SystemEventService::sendReconfig()
{
    sendData(RECONFIG);
}

void SystemEventService::releaseArm()
{
    sendData(RELEASEARM);
}

void SystemEventService::configChanged()
{
    if (configuration != nullptr) {
        configuration->reConfig();
    }
    sendReconfig();
}

void SystemEventService::resetAckRecieved()
{
    newEvent(ACK_RECIEVED);
}

void SystemEventService::internalLinkFailed()
{
    newEvent(BI_FAIL);
}

void SystemEventService::updateState()
{
    switch (currentState) {
    case NO_BI_LINK: enterNoLink(); break;
    case STARTING: enterStarting(); break;
    case RUN: qDebug() << "RUN"; break;
    }
    // Read after the entry action: entering STARTING has already gone on to RUN.
    emit systemStateChanged(currentState);
}

void SystemEventService::enterNoLink()
{
    sendData(RESET);
    qDebug() << "NO_BI_LINK";
    sendResetTimer->start(ResetInterval);
}

void SystemEventService::enterStarting()
{
    qDebug() << "STARTING";
    sendResetTimer->stop();
    reConfig();
}
