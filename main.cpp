#include "logwriter.h"
#include "terminationsignals.h"
#include "tessaroserver.h"

#include <QCoreApplication>
#include <QDir>

namespace {

/// What the libraries read from the environment when they are first used.
void prepareEnvironment()
{
    // Every line of the log carries its time, the first one included.
    qputenv("QT_MESSAGE_PATTERN", "%{time yyyyMMdd hh:mm:ss.zzz} - %{message}");
    // Without a name for it, the zone's file is looked at again three times for every line.
    if (!qEnvironmentVariableIsSet("TZ")) {
        qputenv("TZ", ":/etc/localtime");
    }
    // Qt's own event loops instead of those on top of GLib: the same order of events in fewer steps per wake-up.
    qputenv("QT_NO_GLIB", "1");
}

int runServer(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    // Where a core dump may land. Set here, as the service manager would have to enter the folder also for what opens
    // the relay after our end, and the disk may hang.
    QDir::setCurrent(QCoreApplication::applicationDirPath());
    TerminationSignals terminationSignals;
    QObject::connect(&terminationSignals, &TerminationSignals::terminationRequested, &application,
                     &QCoreApplication::quit);
    TessaroServer server(nullptr);
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char* argv[])
{
    prepareEnvironment();
    LogWriter::install();
    const int status = runServer(argc, argv);
    LogWriter::flushInstalled();
    return status;
}
