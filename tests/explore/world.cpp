#include "world.h"

#include <QCryptographicHash>
#include <QElapsedTimer>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <limits>
#include <random>
#include <unordered_set>

namespace {

struct Outcome
{
    QString violation;
    QByteArray state;
    QStringList choices;
};

/// One run of the search: its books, and how it is told.
class Search
{
public:
    Search(const WorldMaker& make, const ExploreOptions& options)
        : m_make(make)
        , m_options(options)
    {}

    /// @return a violating sequence, or nothing.
    QStringList lookAtAll();
    QStringList walkAtRandom();
    /// Leaves out what is not needed for some violation.
    QStringList shortened(QStringList sequence);
    Outcome run(const QStringList& sequence, bool isFinished = true);
    void tell() const;

private:
    bool isSeen(const QByteArray& state);
    QStringList walk(unsigned int seed);

    const WorldMaker& m_make;
    const ExploreOptions& m_options;
    std::unordered_set<quint64> m_seen;
    long m_sequences = 0;
    long m_walks = 0;
    int m_wholeDepth = 0;   ///< all sequences of this length have been looked at
    bool m_isWhole = false; ///< there are no other states
};

Outcome Search::run(const QStringList& sequence, bool isFinished)
{
    const std::unique_ptr<World> world = m_make();
    for (const QString& choice : sequence) {
        world->perform(choice);
        if (!world->violation().isEmpty()) {
            return {world->violation(), QByteArray(), QStringList()};
        }
    }
    Outcome outcome{QString(), world->state(), world->choices()};
    if (isFinished && !isSeen(outcome.state)) {
        world->finish();
        outcome.violation = world->violation();
    } else if (isFinished) {
        outcome.choices.clear();
    }
    ++m_sequences;
    return outcome;
}

bool Search::isSeen(const QByteArray& state)
{
    const QByteArray digest = QCryptographicHash::hash(state, QCryptographicHash::Md5).left(sizeof(quint64));
    quint64 key = 0;
    std::copy(digest.begin(), digest.end(), reinterpret_cast<char*>(&key));
    return !m_seen.insert(key).second;
}

QStringList Search::lookAtAll()
{
    QElapsedTimer clock;
    clock.start();
    std::deque<QStringList> open{QStringList()};
    while (!open.empty() && clock.elapsed() < m_options.seconds * 1000) {
        const QStringList sequence = open.front();
        open.pop_front();
        m_wholeDepth = std::max(0, sequence.size() - 1);
        const Outcome outcome = run(sequence);
        if (!outcome.violation.isEmpty()) {
            return sequence.isEmpty() ? QStringList{QString()} : sequence;
        }
        if (sequence.size() < m_options.depth) {
            for (const QString& choice : outcome.choices) {
                open.push_back(sequence + QStringList{choice});
            }
        }
    }
    m_isWhole = open.empty() && m_wholeDepth < m_options.depth;
    return {};
}

QStringList Search::walkAtRandom()
{
    QElapsedTimer clock;
    clock.start();
    const unsigned int most = m_options.walks != 0 ? m_options.walks : std::numeric_limits<unsigned int>::max();
    for (unsigned int i = 0; i < most && clock.elapsed() < m_options.seconds * 1000; ++i) {
        const QStringList violating = walk(m_options.seed + i);
        if (!violating.isEmpty()) {
            return violating;
        }
    }
    return {};
}

/// Every walk has some of the words only, but every third has all: what takes several steps of few kinds, and nothing
/// between them that makes it good again, would hardly ever come up among all of them.
QStringList someOf(const QStringList& choices, unsigned int seed)
{
    const unsigned int share = 1 + seed % 3;
    if (share == 1) {
        return choices;
    }
    QStringList some;
    for (const QString& choice : choices) {
        std::minstd_rand ofWord(qHash(choice) + 7919 * seed);
        ofWord.discard(2);
        if (ofWord() / 64 % share == 0) {
            some << choice;
        }
    }
    return some.isEmpty() ? choices : some;
}

QStringList Search::walk(unsigned int seed)
{
    std::mt19937 random(seed);
    const std::unique_ptr<World> world = m_make();
    QStringList sequence;
    ++m_walks;
    for (int step = 0; step < m_options.walkLength; ++step) {
        const QStringList choices = someOf(world->choices(), seed);
        sequence << choices.at(static_cast<int>(random() % static_cast<unsigned int>(choices.size())));
        world->perform(sequence.last());
        if (!world->violation().isEmpty()) {
            return sequence;
        }
    }
    world->finish();
    return world->violation().isEmpty() ? QStringList() : sequence;
}

QStringList Search::shortened(QStringList sequence)
{
    bool isShorter = true;
    while (isShorter) {
        isShorter = false;
        for (int i = sequence.size() - 1; i >= 0; --i) {
            QStringList without = sequence;
            without.removeAt(i);
            m_seen.clear();
            if (!run(without).violation.isEmpty()) {
                sequence = without;
                isShorter = true;
            }
        }
    }
    m_seen.clear();
    return sequence;
}

void Search::tell() const
{
    std::printf("%zu states in %ld sequences, %s to depth %d; %ld walks of %d steps\n", m_seen.size(), m_sequences,
                m_isWhole ? "all that there are, the last" : "all of them", m_wholeDepth, m_walks,
                m_options.walkLength);
}

int tellViolation(Search& search, const QStringList& found, const QString& command)
{
    const QStringList sequence = search.shortened(found);
    std::printf("VIOLATION: %s\n  after: %s\n  replay: %s --replay '%s'\n", qPrintable(search.run(sequence).violation),
                qPrintable(sequence.join(' ')), qPrintable(command), qPrintable(sequence.join(' ')));
    return EXIT_FAILURE;
}

} // namespace

void World::violate(const QString& text)
{
    if (m_violation.isEmpty()) {
        m_violation = text;
    }
}

ExploreOptions exploreOptions(const QStringList& arguments)
{
    ExploreOptions options;
    bool isNumber = arguments.size() % 2 == 1;
    for (int i = 1; i + 1 < arguments.size() && isNumber; i += 2) {
        const QString& name = arguments.at(i);
        const QString& value = arguments.at(i + 1);
        if (name == "--world") {
            options.world = value;
        } else if (name == "--replay") {
            options.replay = value;
        } else if (name == "--seconds") {
            options.seconds = value.toDouble(&isNumber) / 2;
        } else if (name == "--depth") {
            options.depth = value.toInt(&isNumber);
        } else if (name == "--walks") {
            options.walks = value.toUInt(&isNumber);
        } else if (name == "--seed") {
            options.seed = value.toUInt(&isNumber);
        } else {
            isNumber = false;
        }
    }
    if (!isNumber) {
        std::fprintf(stderr,
                     "usage: %s [--world NAME] [--seconds N] [--depth N] [--walks N] [--seed N] "
                     "[--replay 'CHOICE ...']\n",
                     qPrintable(arguments.first()));
        std::exit(2);
    }
    return options;
}

int explore(const WorldMaker& make, const ExploreOptions& options, const QString& command)
{
    Search search(make, options);
    if (!options.replay.isNull()) {
        const Outcome outcome = search.run(options.replay.split(' ', Qt::SkipEmptyParts));
        std::printf("%s\n", outcome.violation.isEmpty() ? "no violation" : qPrintable(outcome.violation));
        return outcome.violation.isEmpty() ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    QStringList found = search.lookAtAll();
    if (found.isEmpty()) {
        found = search.walkAtRandom();
    }
    search.tell();
    return found.isEmpty() ? EXIT_SUCCESS : tellViolation(search, found, command);
}
