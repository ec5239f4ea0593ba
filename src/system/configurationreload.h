#pragma once

#include <QObject>
#include <QTimer>

#include <atomic>
#include <chrono>

class Configuration;

/// Reloads the configuration store in the thread that this object lives in, for those who may not wait for a disk.
///
/// Requests that come while a reload runs are served together by exactly one more, and between two reloads there is a
/// rest: however many requests come, a file is read and `reloaded` emitted at most once in a rest's time. Every request
/// is followed by a `reloaded` whose reading began after it.
///
/// request() may be called from any thread; everything else happens in the object's own. The store outlives it.
class ConfigurationReload : public QObject
{
    Q_OBJECT

public:
    /// As often as the base controller is asked to take notice of something: the pace of RESET.
    static constexpr std::chrono::milliseconds Rest{100};

    explicit ConfigurationReload(Configuration* configuration, std::chrono::milliseconds rest = Rest,
                                 QObject* parent = nullptr);

public slots:
    /// Asks for a reload and returns at once. Any thread.
    void request();

signals:
    /// The store holds what the files held when it was asked for, or something newer.
    void reloaded();

private slots:
    void reload();
    void endRest();

private:
    Configuration* m_configuration;
    QTimer* m_rest;
    std::atomic<quint32> m_requests{0}; ///< not served yet, those that the current reload serves included
    quint32 m_served = 0;               ///< how many of them the current reload serves
};
