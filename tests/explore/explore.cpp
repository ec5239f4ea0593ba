#include "eglinkworld.h"
#include "linkworld.h"
#include "transportworld.h"

#include "applicationmanifest.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

void tellOnlyWhatEndsTheProcess(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtFatalMsg || type == QtCriticalMsg) {
        std::fprintf(stderr, "%s\n", qPrintable(text));
    }
}

struct NamedWorld
{
    QString name;
    WorldMaker make;
    double share; ///< of the time for all
    int depth;    ///< beyond what any time will do, where the world is small enough to be seen whole
};

std::vector<NamedWorld> worlds(VirtualTime& time)
{
    const auto links = [&time](const QList<quint16>& units) {
        return [&time, units]() -> std::unique_ptr<World> {
            return std::make_unique<LinkWorld>(time, units);
        };
    };
    return {
        {"eglink", [&time] { return std::make_unique<EgLinkWorld>(time); }, 0.05, 100},
        {"transport", [&time] { return std::make_unique<TransportWorld>(time); }, 0.15, 8},
        {"links1", links({21}), 0.2, 8},
        {"links2", links({21, 22}), 0.4, 8},
        {"links3", links({21, 22, 23}), 0.2, 8},
    };
}

} // namespace

/// Explores all small worlds one after the other, or the one that is named.
int main(int argc, char* argv[])
{
    qInstallMessageHandler(tellOnlyWhatEndsTheProcess);
    auto& time = *new VirtualTime; // Qt's from here on
    QCoreApplication::setEventDispatcher(&time);
    QCoreApplication application(argc, argv);
    const QTemporaryDir noApplications;
    ApplicationManifest::setRoot(noApplications.path());
    const ExploreOptions options = exploreOptions(QCoreApplication::arguments());

    bool isKnown = options.world.isEmpty();
    for (const NamedWorld& world : worlds(time)) {
        if (!options.world.isEmpty() && options.world != world.name) {
            continue;
        }
        isKnown = true;
        ExploreOptions own = options;
        own.seconds *= options.world.isEmpty() ? world.share : 1;
        own.depth = options.depth != 0 ? options.depth : world.depth;
        std::printf("%-9s ", qPrintable(world.name));
        if (explore(world.make, own, QStringLiteral("%1 --world %2").arg(argv[0], world.name)) != EXIT_SUCCESS) {
            return EXIT_FAILURE;
        }
    }
    if (!isKnown) {
        std::fprintf(stderr, "There is no world '%s'.\n", qPrintable(options.world));
        return 2;
    }
    return EXIT_SUCCESS;
}
