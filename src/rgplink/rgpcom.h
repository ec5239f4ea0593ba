#pragma once

#include <QByteArray>
#include <QObject>

class CFallbackServiceC;
class Configuration;
class GfallbackServiceC;
class TagDatabase;

/// The hub between the remote units and the rest of the base unit. Lives in the main thread; its slots are safe to
/// reach from other threads through queued connections.
class RGPCom : public QObject
{
    Q_OBJECT

public:
    RGPCom(TagDatabase* tagDatabase, Configuration* config, QObject* parent);

    /// Called at every change of the base unit's identity.
    void initialize(GfallbackServiceC* gFallback, CFallbackServiceC* cFallback);

public slots:
    /// A command for all remote units.
    void sendCmd(const QByteArray& data);
    /// Periodic data for all remote units; the newest are kept for units that join later.
    void receivePeriodicFromECLink(QByteArray data);
    void receivePeriodicFromEGLink(QByteArray data);
    void configChanged();
    /// Process data from the base controller: passed on to the machine-controller link without its first two bytes,
    /// with two zero bytes appended.
    void receiveFromService(QByteArray data);

signals:
    void readyReadCmdFromRGP(const QByteArray& data);
    void machineStopActivatedOnArmedRemote();
    void sendToEGLink(QByteArray data);

private:
    const TagDatabase* m_tagDatabase;
    const Configuration* m_config;
};
