#pragma once

#include <QByteArray>
#include <QString>

/// One request of a service tool, as a value. The decoder takes bytes and knows nothing of sockets.
///
/// On the wire a request is a `QDataStream` sequence without any frame around it:
///
///     | command            | what follows                              |
///     |--------------------|-------------------------------------------|
///     | text "getApp"      | remote-unit id 2 BE, application path text |
///     | text "getAppList"  | nothing                                   |
///     | text "startTransfer" | nothing                                 |
///     | any other text     | nothing                                   |
///
///     text = | length in bytes 4 BE, FFFFFFFF for a null text | UTF-16 BE code units |
struct PairRequest
{
    enum class Command : quint8 { Unknown = 0, GetApp = 1, GetAppList = 2, StartTransfer = 3 };

    /// Longest request in bytes, its length fields included. A tool needs a few hundred.
    static constexpr int MaxSize = 64 * 1024;

    Command command = Command::Unknown;
    quint16 ruId = 0; ///< remote unit to pair, `GetApp` only
    QString appPath;  ///< `GetApp` only
};

/// What stands at the front of a run of received bytes.
struct PairRequestDecoding
{
    enum class Status : quint8 {
        Complete = 0,   ///< `request` is valid and occupies the first `size` bytes
        Incomplete = 1, ///< the beginning of a request; more bytes are needed
        TooLong = 2,    ///< a request that is, or says that it will be, longer than `PairRequest::MaxSize`
        Corrupt = 3,    ///< a text of an odd number of bytes: where the next request begins is unknown
    };

    Status status = Status::Incomplete;
    PairRequest request;
    int size = 0;
};

/// Decodes the request at the front of `bytes`. Never allocates for more than the bytes that are there. Re-entrant.
PairRequestDecoding decodePairRequest(const QByteArray& bytes);
