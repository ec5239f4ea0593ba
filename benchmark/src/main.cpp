// The instrument: plays all peers of a base unit on the bench's board and measures what the server adds. It is started
// by benchmark/run, which lays the board; its results are lines of JSON on stdout.

#include "board.h"
#include "experiments.h"
#include "failure.h"
#include "process.h"

#include <cstdlib>
#include <map>
#include <string>

namespace {

/// "--name number" pairs; every option has a number.
std::map<std::string, int> numbersOf(int argc, char* argv[])
{
    std::map<std::string, int> numbers;
    for (int i = 1; i + 1 < argc; i += 2) {
        numbers[argv[i]] = std::atoi(argv[i + 1]);
    }
    return numbers;
}

bench::Options optionsOf(const std::map<std::string, int>& numbers)
{
    bench::Options options;
    const auto take = [&numbers](const char* name, int fallback) {
        const auto found = numbers.find(name);
        return found != numbers.end() ? found->second : fallback;
    };
    options.tty = take("--tty", -1);
    options.rounds = take("--rounds", options.rounds);
    options.samples = take("--samples", options.samples);
    options.starts = take("--starts", options.starts);
    options.watchTime = take("--watch-seconds", 10) * bench::Second;
    options.gap = take("--gap-us", 1000) * bench::Microsecond;
    return options;
}

} // namespace

int main(int argc, char* argv[])
{
    const std::map<std::string, int> numbers = numbersOf(argc, argv);
    bench::check(numbers.count("--tty") == 1 && numbers.count("--peers") == 1, "start this through benchmark/run");
    const bench::Options options = optionsOf(numbers);
    bench::setPeerNetwork(numbers.at("--peers"));
    if (numbers.count("--realtime") == 1) {
        bench::runAheadOfOthers();
    }
    // A part that is not wanted has no repetitions.
    if (options.starts > 0) {
        bench::measureStartUp(options);
    }
    for (int round = 0; round < options.rounds; ++round) {
        bench::measureLatency(options, bench::Side::Server, round);
        bench::measureLatency(options, bench::Side::Floor, round);
    }
    if (options.watchTime > 0) {
        bench::measureIdle(options);
        bench::measureNominal(options);
    }
    return 0;
}
