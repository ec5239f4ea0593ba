#include "board.h"
#include "experiments.h"
#include "failure.h"
#include "results.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr Nanoseconds Patience = 10 * Second;
constexpr Nanoseconds SettleTime = 2 * Second;
constexpr Nanoseconds ImagePeriod = 20 * Millisecond;
constexpr Nanoseconds SetPeriod = 250 * Millisecond;
constexpr Nanoseconds BeatPeriod = 250 * Millisecond;
constexpr int ImagesPerStateChange = 50;
constexpr int Windows = 5;

// --- start-up -------------------------------------------------------------------------------------------------------

/// Sees when the server drives the relay.
class RelayWatch
{
public:
    explicit RelayWatch(Loop& loop)
        : m_loop(loop)
        , m_inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    {
        const int drive = open(RelayDrive, O_WRONLY | O_TRUNC | O_CLOEXEC);
        writeAll(drive, "0\n");
        close(drive);
        check(inotify_add_watch(m_inotify, RelayDrive, IN_MODIFY) >= 0, "watching the relay's drive line");
        m_loop.watch(m_inotify, [this] { changed(); });
    }
    ~RelayWatch()
    {
        m_loop.unwatch(m_inotify);
        close(m_inotify);
    }
    RelayWatch(const RelayWatch&) = delete;
    RelayWatch& operator=(const RelayWatch&) = delete;

    Nanoseconds closedAt = 0;

private:
    void changed()
    {
        const Nanoseconds when = now();
        char buffer[4096];
        static_cast<void>(!read(m_inotify, buffer, sizeof(buffer)));
        const int drive = open(RelayDrive, O_RDONLY | O_CLOEXEC);
        const bool isClosed = read(drive, buffer, 1) == 1 && buffer[0] == '1';
        close(drive);
        closedAt = closedAt == 0 && isClosed ? when : closedAt;
    }

    Loop& m_loop;
    int m_inotify;
};

/// Nanoseconds from the start of the process.
struct StartUpMoments
{
    Nanoseconds relay;
    Nanoseconds frame;
    Nanoseconds listening;
};

StartUpMoments startOnce(int tty)
{
    Loop loop;
    RelayWatch relay(loop);
    BaseController controller(loop, fcntl(tty, F_DUPFD_CLOEXEC, 0));
    const Process server = Process::server();
    check(loop.runUntil([&] { return relay.closedAt != 0 && controller.firstFrame != 0; }, Patience),
          "the server does not close the relay, or says nothing");
    controller.send(ProcessData, processImage(0));
    check(loop.runUntil([] { return unitsCanConnect(); }, Patience), "the server does not listen to units");
    const Nanoseconds began = server.startedAt();
    return {relay.closedAt - began, controller.firstFrame - began, now() - began};
}

// --- upkeep ---------------------------------------------------------------------------------------------------------

/// Watches the server while something goes on, in windows of equal length. The window with the least CPU time stands:
/// what else happens on the machine only adds to it.
void observe(const std::string& kind, Stage& stage, Nanoseconds duration)
{
    stage.loop.runFor(SettleTime);
    std::vector<double> shares;
    const Nanoseconds began = now();
    const long wakeUps = stage.process.wakeUps();
    for (int window = 0; window < Windows; ++window) {
        const Nanoseconds windowBegan = now();
        const Nanoseconds cpu = stage.process.cpuTime();
        stage.loop.runFor(duration / Windows);
        shares.push_back(static_cast<double>(stage.process.cpuTime() - cpu) / static_cast<double>(now() - windowBegan));
    }
    const double seconds = static_cast<double>(now() - began) / Second;
    const auto [least, most] = std::minmax_element(shares.begin(), shares.end());
    Result(kind)
        .number("units", static_cast<double>(stage.units.size()))
        .number("seconds", seconds)
        .number("cpu_percent", 100 * *least)
        .number("cpu_percent_highest", 100 * *most)
        .number("wakeups_per_second", static_cast<double>(stage.process.wakeUps() - wakeUps) / seconds)
        .number("resident_kib", static_cast<double>(stage.process.residentKiB()))
        .number("threads", stage.process.threads());
}

/// What peers do although nothing happens: units keep their connections alive, and the controller repeats its data.
class Background
{
public:
    /// With `changes`, every set of the controller differs from the one before.
    Background(Stage& stage, bool changes)
        : m_stage(stage)
        , m_beats(stage.loop.every(BeatPeriod, [this] { beat(); }))
        , m_sets(stage.loop.every(SetPeriod, [this, changes] { sendSet(changes); }))
    {}
    ~Background()
    {
        m_stage.loop.cancel(m_beats);
        m_stage.loop.cancel(m_sets);
    }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

private:
    void beat()
    {
        for (const auto& unit : m_stage.units) {
            unit->beat();
        }
    }

    void sendSet(bool changes)
    {
        constexpr std::size_t SetSize = 32;
        m_number += changes ? 1U : 0U;
        std::string data = little16(m_number);
        data.resize(SetSize, '\0');
        m_stage.machine.sendSet(data);
    }

    Stage& m_stage;
    unsigned m_number = 0;
    int m_beats;
    int m_sets;
};

} // namespace

void measureStartUp(const Options& options)
{
    std::vector<long long> toRelay;
    std::vector<long long> toFrame;
    std::vector<long long> toListening;
    for (int i = 0; i < options.starts; ++i) {
        const StartUpMoments moments = startOnce(options.tty);
        toRelay.push_back(moments.relay);
        toFrame.push_back(moments.frame);
        toListening.push_back(moments.listening);
    }
    Result("start")
        .number("starts", options.starts)
        .percentiles("relay_", toRelay)
        .percentiles("frame_", toFrame)
        .percentiles("listening_", toListening);
}

void measureIdle(const Options& options)
{
    for (const std::size_t units : {1, 4}) {
        Stage stage(Side::Server, options.tty);
        stage.joinUnits(units);
        const Background background(stage, false);
        observe("idle", stage, options.watchTime);
    }
}

void measureNominal(const Options& options)
{
    constexpr std::size_t NominalUnits = 4;
    Stage stage(Side::Server, options.tty);
    stage.joinUnits(NominalUnits);
    const Background background(stage, true);
    int images = 0;
    const int timer = stage.loop.every(ImagePeriod, [&] {
        ++images;
        const auto ruState = static_cast<unsigned char>(images / ImagesPerStateChange % 200);
        stage.controller.send(ProcessData, processImage(ruState, static_cast<unsigned>(images) & 0x3FF));
    });
    observe("nominal", stage, options.watchTime);
    stage.loop.cancel(timer);
}

} // namespace bench
