#pragma once

#include <QMap>
#include <QObject>
#include <QString>

/// A named record with free texts.
///
/// Lives in the thread of its database. The name never changes after construction and may be read from any thread; the
/// fields belong to the owner's thread.
class Data : public QObject
{
    Q_OBJECT

public:
    explicit Data(QString tagName, QObject* parent = nullptr);

    QString getTag() const;

    /// @return the text stored for `key`, empty when there is none. Never inserts anything.
    QString getField(QString key) const;
    /// Stores or replaces the text of `key`.
    void insertField(QString key, QString value);

private:
    const QString tag;
    QMap<QString, QString> fields;
};
