#pragma once

#include <QByteArray>
#include <QObject>

class Configuration;
class TagDatabase;

/// The hub between the remote units and the rest of the base unit. Lives in the main thread; its slots are safe to
/// reach from other threads through queued connections.
class RGPCom : public QObject
{
    Q_OBJECT

public:
    RGPCom(TagDatabase* tagDatabase, Configuration* config, QObject* parent);

public slots:
    /// Process data from the base controller: passed on to the machine-controller link without its first two bytes,
    /// with two zero bytes appended.
    void receiveFromService(QByteArray data);

signals:
    void sendToEGLink(QByteArray data);

private:
    const TagDatabase* m_tagDatabase;
    const Configuration* m_config;
};
