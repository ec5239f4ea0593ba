#include "remoteunitcheck.h"

#include "configuration.h"
#include "tag.h"
#include "tagdatabase.h"

#include <limits>

namespace RemoteUnitCheck {

bool isRuPaired(const Configuration* config, quint16 ruId)
{
    if (config == nullptr) {
        return false;
    }
    constexpr quint32 lastRow = std::numeric_limits<quint16>::max();
    const QString column = QStringLiteral("RUID");
    for (quint32 row = 0; row <= lastRow; ++row) {
        unsigned int pairedId = 0;
        if (!config->getRemoteTag(static_cast<quint16>(row), column, column, &pairedId)) {
            return false;
        }
        if (pairedId == ruId) {
            return true;
        }
    }
    return false;
}

bool isBuId(const TagDatabase* tagDatabase, quint16 id)
{
    const Tag* const identity = tagDatabase != nullptr ? tagDatabase->get(QStringLiteral("bu_identity")) : nullptr;
    return identity != nullptr && identity->getValue().toUInt() == id;
}

} // namespace RemoteUnitCheck
