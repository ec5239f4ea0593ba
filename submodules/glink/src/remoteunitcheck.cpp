#include "remoteunitcheck.h"

#include "configuration.h"
#include "tag.h"
#include "tagdatabase.h"

namespace RemoteUnitCheck {

bool isRuPaired(const Configuration* config, quint16 ruId)
{
    return config != nullptr && config->isRemoteKnown(ruId);
}

bool isBuId(const TagDatabase* tagDatabase, quint16 id)
{
    const Tag* const identity = tagDatabase != nullptr ? tagDatabase->get(QStringLiteral("bu_identity")) : nullptr;
    return identity != nullptr && identity->getValue().toUInt() == id;
}

} // namespace RemoteUnitCheck
