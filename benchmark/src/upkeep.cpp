#include "board.h"
#include "experiments.h"
#include "failure.h"
#include "results.h"

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

/// What the server takes while something goes on for a while.
class Observation
{
public:
    explicit Observation(Stage& stage)
        : m_stage(stage)
    {
        m_stage.loop.runFor(SettleTime);
        m_began = now();
        m_cpu = m_stage.process.cpuTime();
        m_wakeUps = m_stage.process.wakeUps();
    }

    void report(const std::string& kind) const
    {
        const double seconds = static_cast<double>(now() - m_began) / Second;
        const auto cpu = static_cast<double>(m_stage.process.cpuTime() - m_cpu) / Second;
        Result(kind)
            .number("units", static_cast<double>(m_stage.units.size()))
            .number("seconds", seconds)
            .number("cpu_percent", 100 * cpu / seconds)
            .number("wakeups_per_second", static_cast<double>(m_stage.process.wakeUps() - m_wakeUps) / seconds)
            .number("resident_kib", static_cast<double>(m_stage.process.residentKiB()))
            .number("threads", m_stage.process.threads());
    }

private:
    Stage& m_stage;
    Nanoseconds m_began;
    Nanoseconds m_cpu;
    long m_wakeUps;
};

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
        const Observation observation(stage);
        stage.loop.runFor(options.watchTime);
        observation.report("idle");
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
    const Observation observation(stage);
    stage.loop.runFor(options.watchTime);
    observation.report("nominal");
    stage.loop.cancel(timer);
}

} // namespace bench
