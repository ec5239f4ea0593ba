// Makes the making of each connection between objects slow, in the process that this is preloaded into: a machine so
// loaded that its threads get ahead of each other.
#include <QObject>

#include <dlfcn.h>
#include <unistd.h>

namespace {
constexpr useconds_t DelayUs = 20000;
constexpr char Name[] = "_ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeE"
                        "PKiPK11QMetaObject";
} // namespace

QMetaObject::Connection QObject::connectImpl(const QObject* sender, void** signal, const QObject* receiver,
                                             void** slotPointer, QtPrivate::QSlotObjectBase* slot,
                                             Qt::ConnectionType type, const int* types, const QMetaObject* meta)
{
    static const auto real = reinterpret_cast<decltype(&QObject::connectImpl)>(dlsym(RTLD_NEXT, Name));
    usleep(DelayUs);
    return real(sender, signal, receiver, slotPointer, slot, type, types, meta);
}
