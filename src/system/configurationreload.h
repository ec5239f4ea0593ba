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
/// With a reload that takes 30 ms:
///
/// | ms       | somebody calls                | this object                                                    |
/// |----------|-------------------------------|----------------------------------------------------------------|
/// | 0        | request()                     | begins to read                                                 |
/// | 10       | request(), request()          | –                                                              |
/// | 30       |                               | emits `reloaded`, for the first one alone, and rests           |
/// | 90       | request()                     | –                                                              |
/// | 130      |                               | begins to read, once for the other three                       |
/// | 160      |                               | emits `reloaded`, and rests                                    |
/// | 260      |                               | nothing is left to do: the next request is served at once      |
///
/// request() may be called from any thread; everything else happens in the object's own. The store outlives it, and
/// nobody calls request() any more when it is deleted: those who may still call end before its thread does. Requests
/// that are not served by then are dropped.
class ConfigurationReload : public QObject
{
    Q_OBJECT

public:
    /// As often as the base controller is asked to take notice of something: the pace of RESET.
    static constexpr std::chrono::milliseconds Rest{100};

    /// Reads nothing yet. The thread that it lives in needs an event loop.
    /// @param rest  from the end of one reload to the beginning of the next; 0 still lets other events have their turn.
    explicit ConfigurationReload(Configuration* configuration, std::chrono::milliseconds rest = Rest,
                                 QObject* parent = nullptr);

public slots:
    /// Asks for a reload and returns at once. Any thread; costs an atomic step, and wakes this object's thread only
    /// when no request before it is being served or followed by its rest. It is served at the latest when a running
    /// reload, a rest and its own reload are over.
    void request();

signals:
    /// The store holds what the files held when it was asked for, or something newer. Also emitted when files could not
    /// be read: Configuration::hasReadSettings() tells that. In this object's thread.
    void reloaded();

private slots:
    void reload();
    void endRest();

private:
    Configuration* m_configuration;     ///< not owned
    QTimer* m_rest;                     ///< runs from the end of a reload on; while it runs, requests are only counted
    std::atomic<quint32> m_requests{0}; ///< not served yet, those that the current reload serves included
    quint32 m_served = 0;               ///< how many of them the current reload serves
};
