// Manifests of applications, which come from whoever installs one.

#include "applicationmanifest.h"
#include "fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    silenceLog();
    const auto entries =
        ApplicationManifest::read(fileWith(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size))));
    FUZZ_CHECK(entries.has_value());
    for (auto entry = entries->constBegin(); entry != entries->constEnd(); ++entry) {
        FUZZ_CHECK(entry.key() == entry.key().simplified() && entry.value() == entry.value().simplified());
        FUZZ_CHECK(!entry.key().contains(QLatin1Char(';')) && !entry.value().contains(QLatin1Char(';')));
    }
    FUZZ_CHECK(!ApplicationManifest::isRemoteUnitUserApplication(*entries) ||
               ApplicationManifest::isForRemoteUnits(*entries));
    return 0;
}
