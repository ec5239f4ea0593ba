#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

/// Something small in which one thing after the other may happen, and which knows what must never come of it.
class World
{
public:
    World() = default;
    virtual ~World() = default;
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    /// What may happen next, each a word.
    virtual QStringList choices() const = 0;
    /// Lets it happen. A word that is not among the choices now does nothing.
    virtual void perform(const QString& choice) = 0;
    /// Everything on which the future depends. Worlds with equal states need not both be looked into.
    virtual QByteArray state() const = 0;
    /// What should never have happened, or nothing.
    QString violation() const { return m_violation; }
    /// The world turns benign; afterwards violation() also tells what does not come right again. Once.
    virtual void finish() = 0;

protected:
    /// The first violation stands: what follows may follow from it.
    void violate(const QString& text);

private:
    QString m_violation;
};

using WorldMaker = std::function<std::unique_ptr<World>()>;

struct ExploreOptions
{
    QString world;          ///< the only one, by its name
    int depth = 0;          ///< of the sequences that are all looked at; 0: as the world has it
    double seconds = 20;    ///< for these; and as much again for random walks
    unsigned int walks = 0; ///< no more than that many; 0: as many as there is time for
    int walkLength = 40;    ///< steps of one walk
    unsigned int seed = 1;  ///< of the first walk
    QString replay;         ///< only this sequence
};

/// Reads the options of the command line. Ends the process with 2 on others.
ExploreOptions exploreOptions(const QStringList& arguments);

/// Looks at all sequences of choices up to a depth, leaving out what starts from a state already seen, then walks at
/// random. Prints what it did, and the shortest sequence that leads to a violation with the command that replays it.
/// @param command  what starts this program.
/// @return the exit code: 1 after a violation.
int explore(const WorldMaker& make, const ExploreOptions& options, const QString& command);
