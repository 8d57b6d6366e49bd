#include "Version.h"

using namespace Qt::StringLiterals;

QString getHarnixVersion()
{
    return u"1.0.0"_s;
}
