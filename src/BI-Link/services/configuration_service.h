#pragma once

#include "service_base.h"

#include <QStringList>

class Configuration;
class TagDatabase;

/// Exchanges configuration values with the base controller, one value of four bytes per packet. Both sides ask with
/// message class 2 and answer with class 3.
///
/// The base controller asks for an app setting, or for a setting of one remote unit (the number is the remote unit's
/// row, its "ruindex"); it is answered with the value, filled up with zeros, or with FF FF FF FF for an unknown one:
///
/// | key, 4 Latin-1 characters | optional: remote unit 2 LE |    ->    | value 4 |
///
/// After every start of the link the base unit asks for the values that the base controller supplies, one after the
/// other, and sets the tags of the same names:
///
/// | key, UTF-8 |    ->    | value 4 |
///
/// Lives in the service-layer thread; reads the configuration store and sets tags by direct calls, which both allow.
class ConfigurationService : public ServiceBase
{
    Q_OBJECT

public:
    ConfigurationService(QObject* parent, quint8 serviceId, Configuration* configuration, TagDatabase* tagDatabase);

    /// Asks for the next value; nothing happens when all have been asked for.
    void readNextBCConfig();

    /// Answers a request of the base controller. A request without a whole key gets no answer; of one that has neither
    /// 4 nor 6 bytes, the first four count. A stored value of more than four bytes is a fatal assertion.
    void configBGPToBc(QByteArray request);

    /// Takes an answer of the base controller and asks for the next value. Ignored when none is outstanding; otherwise
    /// an answer that is not four bytes long is a fatal assertion. A key without a tag is passed over.
    void configBCToBGP(QByteArray answer);

public slots:
    void readData(QByteArray data, Link fromLink, quint8 messageClass) override;

    /// Begins, or begins anew, to fetch the base controller's values.
    void readBCConfig();

private:
    QByteArray requestedValue(const QByteArray& request, bool* ok) const;

    Configuration* myConfiguration;
    TagDatabase* tagDatabase;
    QStringList bcConfigKeys;
    int readBCConfigIterator = 0; ///< the key that is being fetched
};
