#pragma once

#include <QObject>

/// An object without content, kept for code that names it; nothing in the base unit creates one. It has no part in what
/// is logged: the server's lines go through Qt's qDebug() and its siblings, and AppLog writes event files by itself.
///
/// The C library's function of the same name hides the class wherever <cmath> is included: write `class log` there.
class log : public QObject
{
    Q_OBJECT

public:
    explicit log(QObject* parent);
};
