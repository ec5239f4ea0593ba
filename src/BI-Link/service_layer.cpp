#include "service_layer.h"

#include "cfallback_service_c.h"
#include "configuration_service.h"
#include "fb_cmd_service.h"
#include "fb_periodic_service.h"
#include "gfallback_service_c.h"
#include "process_data.h"
#include "rgpcom.h"
#include "system_event_service.h"
#include "transport_layer.h"

ServiceLayer::ServiceLayer(RGPCom* hub, Configuration* configuration, TagDatabase* tags, QObject* parent)
    : QObject(parent)
    , rgpCom(hub)
    , myConfiguration(configuration)
    , tagDatabase(tags)
{}

QMap<unsigned char, ServiceBase*> ServiceLayer::getServices() const
{
    return services;
}

void ServiceLayer::initialize()
{
    transportLayer = new TransportLayer(this);
    createServices();
    setup();
}

void ServiceLayer::readDataFromService(QByteArray data, Link toLink, quint8 serviceId, quint8 messageClass)
{
    emit readyReadFromService(data, toLink, serviceId, messageClass);
}

void ServiceLayer::readDataFromTransport(QByteArray data, Link fromLink, quint8 serviceId, quint8 messageClass)
{
    if (fromLink != Internal) {
        return;
    }
    ServiceBase* const service = services.value(serviceId);
    if (service != nullptr) {
        service->readData(data, Internal, messageClass);
    }
}

void ServiceLayer::createServices()
{
    services[SERVICE_SYSTEM_EVENT] = new SystemEventService(this, SERVICE_SYSTEM_EVENT, myConfiguration);
    services[SERVICE_PROCESS_DATA] = new ProcessData(this, SERVICE_PROCESS_DATA, tagDatabase);
    services[SERVICE_CONFIGURATION] =
        new ConfigurationService(this, SERVICE_CONFIGURATION, myConfiguration, tagDatabase);
    services[SERVICE_C_FALLBACK] = new CFallbackServiceC(this, SERVICE_C_FALLBACK);
    services[SERVICE_G_FALLBACK] = new GfallbackServiceC(this, SERVICE_G_FALLBACK);
    services[SERVICE_FB_CMD] = new FbCmdService(this, SERVICE_FB_CMD, myConfiguration, tagDatabase, rgpCom);
    services[SERVICE_FB_PERIODIC] =
        new FbPeriodicService(this, SERVICE_FB_PERIODIC, myConfiguration, tagDatabase, rgpCom);
}

void ServiceLayer::setup()
{
    connectTransport();
    connectSystemEvents();
    auto* const processData = qobject_cast<ProcessData*>(services.value(SERVICE_PROCESS_DATA));
    connect(processData, &ProcessData::sendProcessDataToRgp, rgpCom, &RGPCom::receiveFromService);
    for (ServiceBase* const service : qAsConst(services)) {
        connect(service, &ServiceBase::readyReadFromService, this, &ServiceLayer::readDataFromService);
    }
}

void ServiceLayer::connectTransport()
{
    connect(this, &ServiceLayer::readyReadFromService, transportLayer, &TransportLayer::readDataFromService);
    connect(transportLayer, &TransportLayer::readyRead, this, &ServiceLayer::readDataFromTransport);
}

void ServiceLayer::connectSystemEvents()
{
    auto* const events = qobject_cast<SystemEventService*>(services.value(SERVICE_SYSTEM_EVENT));
    connect(transportLayer, &TransportLayer::resetAckRecieved, events, &SystemEventService::resetAckRecieved);
    connect(events, &SystemEventService::systemStateChanged, transportLayer, &TransportLayer::clearSendBuffer);
    connect(transportLayer, &TransportLayer::internLinkFail, events, &SystemEventService::internalLinkFailed);
    auto* const fallback = qobject_cast<GfallbackServiceC*>(services.value(SERVICE_G_FALLBACK));
    fallback->followLinkState(SystemEventService::NO_BI_LINK);
    connect(events, &SystemEventService::systemStateChanged, fallback, &GfallbackServiceC::followLinkState);
}
