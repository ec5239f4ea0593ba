#include "tessaroserver.h"

#include <QCoreApplication>

int main(int argc, char* argv[])
{
    // Before the application object exists: Qt's message handler reads the pattern once.
    qputenv("QT_MESSAGE_PATTERN", "%{time yyyyMMdd hh:mm:ss.zzz} - %{message}");
    QCoreApplication application(argc, argv);
    TessaroServer server(nullptr);
    return QCoreApplication::exec();
}
