#pragma once

#include <QString>

#include <array>

/// The four 32-bit words that a remote unit and its base unit share once they are paired.
///
/// They are secrets: a value of this type is passed on and forgotten, never kept. Anything that is written of it goes
/// to the files and the log line that pairing prescribes, nowhere else.
struct PairingKeys
{
    static constexpr int WordCount = 4;

    std::array<quint32, WordCount> words{};

    /// Four fresh words, all 32 bits of each from the system's cryptographically strong generator. Thread-safe.
    static PairingKeys draw();
};

/// One word of the system's cryptographically strong generator: the C library's arc4random, or the kernel's getrandom
/// where the library lacks it. Never from a seeded sequence. Thread-safe.
quint32 strongRandomWord();

/// One word of the kernel's generator. Ends the process when the kernel has none. Thread-safe.
quint32 kernelRandomWord();

/// A fresh key text: 32 lower-case hexadecimal digits, unlike any before. Empty, with a log line, in the one case in
/// ten million millions in which the number to hash comes out as 0.
QString generateNewPairingKey();

/// The text that `generateNewPairingKey` makes of a drawn number and a time.
///
/// @param randomNumber  any drawn number; only its remainder modulo 10000000 counts.
/// @param nowMs         milliseconds since the epoch.
/// @return the MD5, as lower-case hexadecimal text, of remainder + 1 - nowMs written in decimal; empty when that is 0.
QString pairingKeyText(quint32 randomNumber, qint64 nowMs);
