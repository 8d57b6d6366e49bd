#include "ReceiverTally.h"

#include "Output.h"

using namespace Qt::StringLiterals;

void ReceiverTally::addKept(qint64 bytes)
{
    ++keptRecords;
    keptBytes += bytes;
}

void ReceiverTally::addLost(const QByteArrayList &bodies)
{
    for (const QByteArray &body : bodies) {
        ++lostRecords;
        lostBytes += body.size();
    }
}

QString ReceiverTally::summary() const
{
    const QString text =
        u"%1 of %2, %3, %4"_s.arg(counted(keptRecords, u"record"_s), counted(keptBytes, u"byte"_s),
            counted(keepAlives, u"keep-alive"_s), counted(connections, u"connection"_s));
    if (lostRecords == 0)
        return text;
    return text
        + u", %1 of %2 lost"_s.arg(
            counted(lostRecords, u"record"_s), counted(lostBytes, u"byte"_s));
}
