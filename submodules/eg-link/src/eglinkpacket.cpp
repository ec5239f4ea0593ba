#include "eglinkpacket.h"

#include "utillityfunctions.h"

#include <algorithm>
#include <array>

namespace EGLinkPacket {

namespace {

struct TypeName
{
    Type type;
    const char* name;
};

constexpr std::array<TypeName, 6> TypeNames{{
    {Type::Vrpi, "VRPI"},
    {Type::Vrpo, "VRPO"},
    {Type::Vrci, "VRCI"},
    {Type::Vrco, "VRCO"},
    {Type::Vrai, "VRAI"},
    {Type::Vrao, "VRAO"},
}};

quint16 numberAt(const QByteArray& packet, int offset)
{
    constexpr int size = 2;
    return toUint16(QByteArray::fromRawData(packet.constData() + offset, size), false);
}

} // namespace

QByteArray nameOf(Type type)
{
    const auto* const row =
        std::find_if(TypeNames.begin(), TypeNames.end(), [type](const TypeName& entry) { return entry.type == type; });
    return QByteArray(row != TypeNames.end() ? row->name : "NONE");
}

Type typeOf(const QByteArray& name)
{
    const auto* const row =
        std::find_if(TypeNames.begin(), TypeNames.end(), [&name](const TypeName& entry) { return name == entry.name; });
    return row != TypeNames.end() ? row->type : Type::None;
}

Header parseHeader(const QByteArray& packet)
{
    Header header;
    header.type = typeOf(packet.left(TypeSize));
    header.revision = numberAt(packet, RevisionOffset);
    header.origin = numberAt(packet, OriginOffset);
    header.serial = numberAt(packet, SerialOffset);
    header.dataSize = static_cast<qint16>(numberAt(packet, DataSizeOffset));
    return header;
}

QByteArray header(Type type, quint16 origin, quint16 serial, int dataSize)
{
    QByteArray bytes;
    bytes.reserve(MaxPacketSize);
    bytes.append(nameOf(type));
    appendUint16(bytes, Revision);
    appendUint16(bytes, origin);
    appendUint16(bytes, serial);
    appendUint16(bytes, static_cast<quint16>(dataSize));
    bytes.append(SpareSize, '\0');
    return bytes;
}

QByteArray commandPayload(quint16 commandId, const QByteArray& command)
{
    QByteArray payload = acknowledgementPayload(commandId);
    payload.append(CommandReservedSize, '\0');
    payload.append(command);
    return payload;
}

QByteArray acknowledgementPayload(quint16 commandId)
{
    QByteArray payload;
    appendUint16(payload, commandId);
    return payload;
}

quint16 commandIdOf(const QByteArray& payload)
{
    return numberAt(payload, 0);
}

} // namespace EGLinkPacket
