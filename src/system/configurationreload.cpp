#include "configurationreload.h"

#include "configuration.h"

ConfigurationReload::ConfigurationReload(Configuration* configuration, std::chrono::milliseconds rest, QObject* parent)
    : QObject(parent)
    , m_configuration(configuration)
    , m_rest(new QTimer(this))
{
    m_rest->setSingleShot(true);
    m_rest->setInterval(rest);
    connect(m_rest, &QTimer::timeout, this, &ConfigurationReload::endRest);
}

void ConfigurationReload::request()
{
    if (m_requests.fetch_add(1) == 0) {
        QMetaObject::invokeMethod(this, &ConfigurationReload::reload, Qt::QueuedConnection);
    }
}

void ConfigurationReload::reload()
{
    m_served = m_requests;
    m_configuration->reConfig();
    emit reloaded();
    m_rest->start();
}

void ConfigurationReload::endRest()
{
    if (m_requests.fetch_sub(m_served) != m_served) {
        reload();
    }
}
