#include "terminationsignals.h"
#include "tessaroserver.h"

#include <QCoreApplication>

int main(int argc, char* argv[])
{
    // Before the application object exists: every line of the log carries its time, the first one included.
    qputenv("QT_MESSAGE_PATTERN", "%{time yyyyMMdd hh:mm:ss.zzz} - %{message}");
    // Qt's own event loops instead of those on top of GLib: the same order of events at fewer steps per wake-up.
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication application(argc, argv);
    TerminationSignals terminationSignals;
    QObject::connect(&terminationSignals, &TerminationSignals::terminationRequested, &application,
                     &QCoreApplication::quit);
    TessaroServer server(nullptr);
    return QCoreApplication::exec();
}
