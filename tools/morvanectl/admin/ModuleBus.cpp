#include "ModuleBus.h"

#include "Output.h"

using namespace Qt::StringLiterals;

QString ModuleBus::nameOf(Key module) const
{
    return names.contains(module) ? printable(names.value(module)) : u"(no name yet)"_s;
}

void ModuleBus::noteName(Key module, const QByteArray &name)
{
    const bool isNew = !names.contains(module);
    const QByteArray before = std::exchange(names[module], name);
    if (isNew)
        Q_EMIT moduleCame(module);
    else if (before != name)
        Q_EMIT moduleRenamed(module, before);
}

void ModuleBus::noteLoss(Key module)
{
    if (names.contains(module))
        Q_EMIT moduleLeft(module, names.take(module));
}
