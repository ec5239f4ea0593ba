#pragma once

#include "link.h"

#include <QByteArray>
#include <QMap>
#include <QObject>

class Configuration;
class RGPCom;
class ServiceBase;
class TagDatabase;
class TransportLayer;

/// The top of the internal link: builds the transport layer and one object per service, and routes payloads between
/// them by service id.
///
/// Made without parent in the main thread and moved to a thread of its own, in which `initialize` builds everything
/// else and in which all of it lives. Deleting the layer, also there, takes the whole internal link down: services,
/// packets that wait, serial port and reader thread.
///
///     in:  TransportLayer -> readDataFromTransport() -> ServiceBase::readData()
///     out: ServiceBase::readyReadFromService() -> readDataFromService() -> readyReadFromService() -> TransportLayer
///
/// All of that are direct calls in the one thread, so a service has had a packet in its hands when the transport
/// layer acknowledges it, and one that waits for something holds up the whole link, the judgement on its failure
/// included. A packet whose handling ends the process has not been acknowledged.
///
/// | id  | service              | id  | service             |
/// |-----|----------------------|-----|---------------------|
/// | 100 | SystemEventService   | 105 | GfallbackServiceC   |
/// | 101 | ProcessData          | 106 | FbCmdService        |
/// | 102 | ConfigurationService | 107 | FbPeriodicService   |
/// | 104 | CFallbackServiceC    |     |                     |
class ServiceLayer : public QObject
{
    Q_OBJECT

public:
    /// Only keeps the pointers, which must stay valid for as long as the layer lives.
    ServiceLayer(RGPCom* rgpCom, Configuration* configuration, TagDatabase* tagDatabase, QObject* parent);

    /// The services by id: none before `initialize`, and the seven of the table for ever after. Any thread may ask once
    /// `initialize` has returned; what it gets may be connected to from there, and reached by queued calls only. The
    /// services stay the layer's.
    QMap<unsigned char, ServiceBase*> getServices() const;

public slots:
    /// Builds transport layer and services and connects them. Called once, in the layer's thread, while the main thread
    /// waits. Nothing is received before control is back in that thread's event loop: who connects to the services in
    /// the same call misses nothing.
    void initialize();

    /// A payload from a service, on its way to the base controller.
    void readDataFromService(QByteArray data, Link toLink, quint8 serviceId, quint8 messageClass);

    /// A payload from the base controller, on its way to a service. Dropped without a word if it comes from elsewhere
    /// or if there is no such service.
    void readDataFromTransport(QByteArray data, Link fromLink, quint8 serviceId, quint8 messageClass);

signals:
    /// What any of the services sends; for the transport layer. Emitted in the layer's thread.
    void readyReadFromService(QByteArray data, Link toLink, quint8 serviceId, quint8 messageClass);

private:
    void createServices();
    void setup();
    void connectTransport();
    void connectSystemEvents();

    QMap<unsigned char, ServiceBase*> services; ///< not changed after `initialize`, other threads copy it
    TransportLayer* transportLayer = nullptr;
    RGPCom* rgpCom;
    Configuration* myConfiguration;
    TagDatabase* tagDatabase;
};
