// Reassembly of the controller's periodic data, against a model that is as plain as can be.

#include "fuzzing.h"
#include "vrporeassembly.h"

#include <map>
#include <optional>

namespace {

class Model
{
public:
    explicit Model(int count)
        : m_count(count)
    {}

    std::optional<QByteArray> add(quint16 serial, const QByteArray& payload)
    {
        if (payload.isEmpty()) {
            return {};
        }
        if (!m_parts.empty() && serial != m_serial) {
            m_parts.clear();
        }
        m_serial = serial;
        const int index = static_cast<quint8>(payload.at(0));
        if (index < m_count) {
            m_parts.emplace(index, payload.mid(1)); // keeps the first copy
        }
        if (m_count == 0 || static_cast<int>(m_parts.size()) < m_count) {
            return {};
        }
        QByteArray all;
        for (const auto& part : m_parts) {
            all += part.second;
        }
        m_parts.clear();
        return all;
    }

private:
    int m_count;
    quint16 m_serial = 0;
    std::map<int, QByteArray> m_parts;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    silenceLog();
    FuzzInput input(data, size);
    const int count = input.byte() % 6;
    VrpoReassembly reassembly(static_cast<quint32>(count) * 491U);
    FUZZ_CHECK(reassembly.totalCount() == count);
    Model model(count);
    while (!input.isAtEnd()) {
        const quint16 serial = input.byte() % 4;
        const QByteArray payload = input.bytes(input.byte() % 8);
        FUZZ_CHECK(reassembly.add(serial, payload) == model.add(serial, payload));
    }
    return 0;
}
