#include "RecordStore.h"

#include <cerrno>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

// Returns the kind that a body begins with. "tempdb" may also be "tempdb_t", because nothing
// separates a kind from the payload.
QString beginningOf(const QByteArray &body)
{
    for (const QByteArray &kind : {QByteArray("tempdb"), QByteArray("error")}) {
        if (body.startsWith(kind))
            return QString::fromLatin1(kind) + u"..."_s;
    }
    return u"no known kind"_s;
}

} // namespace

RecordStore::RecordStore(const ReceiveOptions &receiveOptions)
    : options(receiveOptions)
{
}

bool RecordStore::open()
{
    errno = 0;
    if (options.acknowledge)
        return batch.open(options.directory, options.fileNameTemplate);
    return options.directory.isEmpty()
        || files.open(options.directory, options.fileNameTemplate,
            options.overwrite ? NumberedFiles::Existing::Overwrite : NumberedFiles::Existing::Keep);
}

bool RecordStore::add(const QByteArray &body, qint64 link)
{
    qint64 number = 0;
    if (options.acknowledge) {
        if (!batch.add(body, link))
            return false;
    } else if (options.directory.isEmpty()) {
        number = ++shownRecords;
    } else {
        const std::optional<qint64> numberOfFile = files.add(body);
        if (!numberOfFile)
            return false;
        number = *numberOfFile;
    }
    pendingRecords.append({number, body.size(), beginningOf(body)});
    return true;
}

std::optional<QList<RecordStore::Record>> RecordStore::commit()
{
    if (options.acknowledge) {
        const std::optional<QList<qint64>> numbers = batch.commit();
        if (!numbers)
            return std::nullopt;
        for (qsizetype i = 0; i < numbers->size(); ++i)
            pendingRecords[i].number = numbers->at(i);
    }
    return std::exchange(pendingRecords, {});
}
