#include "RecordBatch.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype mostFlushedOneByOne = 8; // records
constexpr qint64 mostBytesOfBatch = 8'388'608; // a sender has no more on its way
const QString hiddenPrefix = u".batch-"_s;

} // namespace

bool RecordBatch::open(const QString &path, const QString &nameTemplate)
{
    errno = 0;
    if (!files.open(path, nameTemplate, NumberedFiles::Existing::Keep) || !lock())
        return false;
    removeLeftovers();
    const QMap<qint64, QString> there = files.behind(0);
    if (!index.open(files.folder(), there.isEmpty() ? 0 : there.lastKey())
        || !indexFilesWithoutLine())
        return false;
    files.startBehind(index.lastNumber());
    lastLink = index.lastLink();
    return true;
}

// Succeeds on file systems that do not support locks.
bool RecordBatch::lock()
{
    lockedFolder = Descriptor(::open(
        QFile::encodeName(files.folder().path()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return lockedFolder.isOpen()
        && (::flock(lockedFolder.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK);
}

void RecordBatch::removeLeftovers() const
{
    const QStringList hidden =
        QDir(files.folder().path()).entryList({hiddenPrefix + u'*'}, QDir::Files | QDir::Hidden);
    for (const QString &name : hidden)
        QFile::remove(files.folder().absoluteFilePath(name));
}

bool RecordBatch::indexFilesWithoutLine()
{
    const QMap<qint64, QString> unknown = files.behind(index.lastNumber());
    for (auto found = unknown.begin(); found != unknown.end(); ++found) {
        QFile file(files.folder().absoluteFilePath(found.value()));
        if (!file.open(QIODevice::ReadOnly))
            continue; // somebody has just fetched it
        QCryptographicHash hash(RecordIndex::algorithm);
        if (!hash.addData(&file))
            return false;
        index.add({found.key(), 0, file.size(), hash.result(), found.value()});
    }
    return index.flush();
}

bool RecordBatch::add(const QByteArray &content, qint64 link)
{
    const QString hidden = hiddenPrefix + QString::number(pendingRecords.size());
    if (!files.write(hidden, content))
        return false;
    pendingRecords.append({0, link, content.size(),
        QCryptographicHash::hash(content, RecordIndex::algorithm), hidden});
    pendingBytes += content.size();
    return true;
}

bool RecordBatch::isFull() const
{
    return pendingRecords.size() >= mostRecords || pendingBytes >= mostBytesOfBatch;
}

// Flushing the whole file system is much faster for many files. For a few it would be slower,
// because it also waits for what other programs have written.
bool RecordBatch::flushFiles() const
{
    if (pendingRecords.size() > mostFlushedOneByOne)
        return ::syncfs(lockedFolder.get()) == 0;
    return std::all_of(
        pendingRecords.begin(), pendingRecords.end(), [this](const RecordIndex::Line &record) {
            const QByteArray path = QFile::encodeName(files.folder().absoluteFilePath(record.file));
            const Descriptor file(::open(path.constData(), O_WRONLY | O_CLOEXEC));
            return file.isOpen() && ::fdatasync(file.get()) == 0;
        });
}

std::optional<QList<qint64>> RecordBatch::commit()
{
    QList<qint64> numbers;
    if (pendingRecords.isEmpty())
        return numbers;
    if (!flushFiles())
        return std::nullopt;
    for (RecordIndex::Line &record : pendingRecords) {
        const std::optional<qint64> number = files.giveName(record.file);
        if (!number)
            return std::nullopt;
        record.number = *number;
        record.file = files.latestFileName();
        index.add(record);
        numbers.append(*number);
    }
    if (!index.flush() || !index.startNewFileIfFull())
        return std::nullopt;
    pendingRecords.clear();
    pendingBytes = 0;
    return numbers;
}
