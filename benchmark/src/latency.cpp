#include "experiments.h"
#include "failure.h"
#include "results.h"

#include <algorithm>
#include <functional>
#include <map>

namespace bench {

namespace {

constexpr Nanoseconds Patience = 3 * Second;
constexpr int WarmUp = 20;
constexpr std::size_t PeriodicSize = 64;
constexpr std::size_t SetSize = 32; ///< what the example's tag file gives the controller's periodic data
constexpr std::size_t CommandSize = 16;
constexpr char FromFieldBus = '\1'; ///< the base unit puts the origin in front of periodic data
constexpr char FromController = '\0';

/// Numbered data, so that a delivery is known to belong to the message just sent.
std::string numbered(int number, std::size_t size)
{
    std::string data = little16(static_cast<unsigned>(number) & 0xFFFF);
    data.resize(size, '\x55');
    return data;
}

unsigned char ruStateOf(int number)
{
    return static_cast<unsigned char>(1 + number % 200);
}

using Arrivals = std::map<std::string, std::vector<Nanoseconds>>; ///< destination -> moments

/// One way through the base unit: what starts it, where it has to arrive, and how often at each place.
struct Way
{
    std::string name;
    std::function<void(Reaction& onTty, Reaction& onUnit, Reaction& onController)> route; ///< for the floor
    std::function<Nanoseconds(int number)> send;
    std::function<std::size_t(const std::string& destination)> expected;
    std::vector<std::string> destinations;
    std::function<bool()> isAcknowledged;
};

class LatencyExperiment
{
public:
    LatencyExperiment(Stage& stage, const Options& options, int round)
        : m_stage(stage)
        , m_options(options)
        , m_round(round)
    {
        listen();
    }

    void run(std::size_t units)
    {
        m_stage.joinUnits(units);
        listenToUnits();
        for (const Way& way : ways()) {
            measure(way);
        }
    }

private:
    bool isServer() const { return m_stage.side == Side::Server; }

    // --- arrivals ---

    void arrived(const std::string& destination, bool isCurrent, Nanoseconds when)
    {
        // The forwarder's bytes are always the same ones.
        if (isCurrent || !isServer()) {
            m_arrivals[destination].push_back(when);
        }
    }

    void listen()
    {
        m_stage.api.pushed = [this](const std::string& status, Nanoseconds when) {
            s_statusSize = isServer() ? status.size() : s_statusSize;
            const std::string current = "\"RU_STATE\":\"" + std::to_string(ruStateOf(m_number)) + '"';
            arrived("API", status.find(current) != std::string::npos, when);
        };
        m_stage.controller.commandReceived = [this](const std::string& command, Nanoseconds when) {
            arrived("UART", command == numbered(m_number, CommandSize), when);
        };
        m_stage.machine.commandReceived = [this](const std::string& command, Nanoseconds when) {
            arrived("controller", command == numbered(m_number, CommandSize), when);
        };
    }

    void listenToUnits()
    {
        for (const auto& unit : m_stage.units) {
            unit->received = [this](std::uint8_t id, std::string_view payload, Nanoseconds when) {
                const bool isCurrent = payload.substr(1) == numbered(m_number, payload.size() - 1);
                if (id == UnitPeriodic) {
                    arrived("units", isCurrent, when);
                }
            };
        }
    }

    // --- ways ---

    std::vector<Way> ways() { return {image(), periodic(), command(), set()}; }

    Way image()
    {
        return {"image",
                [](Reaction& onTty, Reaction&, Reaction&) {
                    onTty.toApi = std::string(s_statusSize, 'x');
                    onTty.toTty = frameOf({Ack, 0, ProcessData, {}});
                },
                [this](int number) { return m_stage.controller.send(ProcessData, processImage(ruStateOf(number))); },
                [](const std::string&) { return 1; },
                {"API"},
                [this] {
                    return m_stage.controller.isIdle();
                }};
    }

    Way periodic()
    {
        return {"periodic",
                [](Reaction& onTty, Reaction&, Reaction&) {
                    onTty.toUnits = glinkFrame(UnitPeriodic, false, FromFieldBus + numbered(0, PeriodicSize));
                    onTty.toTty = frameOf({Ack, 0, Periodic, {}});
                },
                [this](int number) { return m_stage.controller.send(Periodic, numbered(number, PeriodicSize)); },
                [this](const std::string&) { return m_stage.units.size(); },
                {"units"},
                [this] {
                    return m_stage.controller.isIdle();
                }};
    }

    Way command()
    {
        return {"command",
                [](Reaction&, Reaction& onUnit, Reaction&) {
                    const std::string text = numbered(0, CommandSize);
                    onUnit.toSender = glinkFrame(UnitCommand, true, {});
                    onUnit.toTty = frameOf({TransportAck, 0, Command, text});
                    onUnit.toController = controllerDatagram("VRCI", 0, std::string(6, '\0') + text);
                },
                [this](int number) { return m_stage.units.front()->sendCommand(numbered(number, CommandSize)); },
                [](const std::string&) { return 1; },
                {"UART", "controller"},
                [this] {
                    return m_stage.units.front()->isIdle();
                }};
    }

    Way set()
    {
        return {"set",
                [](Reaction&, Reaction&, Reaction& onController) {
                    onController.toUnits = glinkFrame(UnitPeriodic, false, FromController + numbered(0, SetSize));
                },
                [this](int number) { return m_stage.machine.sendSet(numbered(number, SetSize)); },
                [this](const std::string&) { return m_stage.units.size(); },
                {"units"},
                [] {
                    return true;
                }};
    }

    // --- measuring ---

    void measure(const Way& way)
    {
        if (!isServer()) {
            *m_stage.routes = Routes{};
            way.route(m_stage.routes->onTty, m_stage.routes->onUnit, m_stage.routes->onController);
        }
        m_lasts.clear();
        m_spreads.clear();
        for (int i = 0; i < WarmUp; ++i) {
            sendOne(way, false);
        }
        const Nanoseconds cpu = m_stage.process.cpuTime();
        const long delivered = m_stage.delivered();
        const int samples = samplesFor(m_stage.units.size());
        for (int i = 0; i < samples; ++i) {
            sendOne(way, true);
        }
        const double cpuMicroseconds = static_cast<double>(m_stage.process.cpuTime() - cpu) / Microsecond;
        report(way, samples, cpuMicroseconds / static_cast<double>(m_stage.delivered() - delivered));
    }

    /// Enough for the percentiles, and not so many that many units take for ever.
    int samplesFor(std::size_t units) const
    {
        return std::max(m_options.samples / 4, m_options.samples / static_cast<int>(1 + units / 16));
    }

    void sendOne(const Way& way, bool counts)
    {
        ++m_number;
        m_arrivals.clear();
        const Nanoseconds sent = way.send(m_number);
        const bool isComplete =
            m_stage.loop.runUntil([&] { return way.isAcknowledged() && allArrived(way); }, Patience);
        check(isComplete, "a message of the kind '" + way.name + "' did not arrive");
        for (const std::string& destination : way.destinations) {
            if (counts) {
                keep(destination, sent);
            }
        }
        m_stage.loop.runFor(m_options.gap);
    }

    bool allArrived(const Way& way)
    {
        return std::all_of(way.destinations.begin(), way.destinations.end(), [&](const std::string& destination) {
            return m_arrivals[destination].size() >= way.expected(destination);
        });
    }

    void keep(const std::string& destination, Nanoseconds sent)
    {
        const auto [first, last] = std::minmax_element(m_arrivals[destination].begin(), m_arrivals[destination].end());
        m_lasts[destination].push_back(*last - sent);
        m_spreads[destination].push_back(*last - *first);
    }

    void report(const Way& way, int samples, double cpuPerDelivery)
    {
        for (const std::string& destination : way.destinations) {
            Result result("latency");
            result.text("way", way.name).text("to", destination).text("side", isServer() ? "server" : "floor");
            result.number("units", static_cast<double>(m_stage.units.size())).number("round", m_round);
            result.number("samples", samples).number("cpu_us", cpuPerDelivery);
            result.percentiles("", m_lasts[destination]);
            if (m_stage.units.size() > 1 && destination == "units") {
                result.percentiles("spread_", m_spreads[destination]);
            }
        }
    }

    Stage& m_stage;
    const Options& m_options;
    const int m_round;
    int m_number = 0;
    Arrivals m_arrivals;
    std::map<std::string, std::vector<long long>> m_lasts;
    std::map<std::string, std::vector<long long>> m_spreads;
    static std::size_t s_statusSize; ///< of the server's last push, for the forwarder that comes after it
};

std::size_t LatencyExperiment::s_statusSize = 200;

} // namespace

void measureLatency(const Options& options, Side side, int round)
{
    Stage stage(side, options.tty);
    LatencyExperiment experiment(stage, options, round);
    for (const std::size_t units : options.units) {
        experiment.run(units);
    }
}

} // namespace bench
