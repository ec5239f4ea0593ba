#pragma once

#include <QObject>

/// An object without content, kept for code that names it; nothing in the base unit creates one.
///
/// The C library's function of the same name hides the class wherever <cmath> is included: write `class log` there.
class log : public QObject
{
    Q_OBJECT

public:
    explicit log(QObject* parent);
};
