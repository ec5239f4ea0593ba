#include "myassertfunc.h"

#include <QDebug>
#include <QString>

void myAssertFunc(const char* file, unsigned int line)
{
    qDebug() << "Fatal error in " << QString::fromUtf8(file) << ":" << line << ".";
    qFatal("Fatal");
}
