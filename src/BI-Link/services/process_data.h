#pragma once

#include "service_base.h"

class QTimer;
class Tag;
class TagDatabase;

/// Cyclic process data: passes the base controller's process image on to the tags and to the remote units' hub, and
/// tells the base controller about the base unit every 500 ms, whatever state the link is in.
///
/// Status record to the base controller, message class 1; of each tag's value the low bits:
///
/// | "bu_identity" 2 LE | "total_rus" 1 | "eglink_status" 1 |
///
///     identity 0x1234, 3 units, status 0x101: 34 12 03 01
///
/// The record is also what a silent base controller is noticed by: when nothing else is sent, it is the packet that
/// gets no acknowledgement. Its 500 ms are thus part of the time in which the relay opens, and the timer is an exact
/// one.
///
/// Lives in the service-layer thread. The tags belong to the main thread, but may be looked up and read from here.
class ProcessData : public ServiceBase
{
    Q_OBJECT

public:
    /// Without a database no status record is ever sent. A tag that the database lacks is reported by one warning each;
    /// its bytes are sent as 0. The first record goes out 500 ms after the construction.
    ProcessData(QObject* parent, quint8 serviceId, TagDatabase* tagDatabase);

public slots:
    /// A process image of any size. It is not looked at, and not copied: the receivers share its bytes.
    void readData(QByteArray data, Link fromLink, quint8 messageClass) override;

    /// Sends one status record.
    void storeAndSendProcessData();

signals:
    /// A process image for the tags, told before it is told to the hub.
    /// The constructor has connected it to the tag database, which decodes it in the main thread.
    void newProcessData(QByteArray data);
    /// The same image for the hub. By the time that the hub has it, the tags show it.
    void sendProcessDataToRgp(QByteArray data);

private:
    void warnAboutMissingTags() const;
    unsigned int valueOf(const char* tagName) const;

    TagDatabase* tagDatabase;
    QTimer* sendDataTimer = nullptr; ///< null without a database
    static constexpr int storeAndSendIntervalMs = 500;
};
