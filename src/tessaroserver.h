#pragma once

#include <QObject>

/// The root of the object tree: builds every long-lived component and connects them. Lives in the main thread.
class TessaroServer : public QObject
{
    Q_OBJECT

public:
    explicit TessaroServer(QObject* parent = nullptr);
};
