#include "pairingkeys.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDebug>

#include <cerrno>
#include <cstdlib>
#include <sys/random.h>

namespace {

constexpr quint32 KeyTextNumbers = 10000000;

} // namespace

quint32 kernelRandomWord()
{
    quint32 word = 0;
    ssize_t count = 0;
    do {
        // So few bytes come whole or not at all; only the wait for the first entropy after boot can be interrupted.
        count = getrandom(&word, sizeof(word), 0);
    } while (count < 0 && errno == EINTR);
    if (count != ssize_t(sizeof(word))) {
        qFatal("pairserver: No random numbers from the kernel");
    }
    return word;
}

quint32 strongRandomWord()
{
#ifdef TESSARO_HAVE_ARC4RANDOM
    return arc4random();
#else
    return kernelRandomWord();
#endif
}

PairingKeys PairingKeys::draw()
{
    PairingKeys keys;
    for (quint32& word : keys.words) {
        word = strongRandomWord();
    }
    return keys;
}

QString generateNewPairingKey()
{
    return pairingKeyText(strongRandomWord(), QDateTime::currentMSecsSinceEpoch());
}

QString pairingKeyText(quint32 randomNumber, qint64 nowMs)
{
    const qint64 valueToHash = qint64(randomNumber % KeyTextNumbers) + 1 - nowMs;
    if (valueToHash == 0) {
        qDebug() << "pairserver: Can't generate new pairing key since valueToHash is 0";
        return {};
    }
    const QByteArray digest = QCryptographicHash::hash(QByteArray::number(valueToHash), QCryptographicHash::Md5);
    return QString::fromLatin1(digest.toHex());
}
