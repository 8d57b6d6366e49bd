#include "Version.h"

QString getHarnixVersion()
{
    return QStringLiteral(HARNIX_VERSION);
}
