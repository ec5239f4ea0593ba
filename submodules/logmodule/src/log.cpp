#include "log.h"

log::log(QObject* parent)
    : QObject(parent)
{}
