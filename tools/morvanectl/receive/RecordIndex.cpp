#include "RecordIndex.h"

#include "NameTemplate.h"

#include <QFile>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 fullSize = 67'108'864; // bytes; half a million records
constexpr qsizetype tailSize = 1'048'576; // bytes; more than the lines of a batch
constexpr char heading[] = "# after ";
constexpr qsizetype digestDigits = 64;

// Reads the number and the link of a complete line. The heading has only a number.
std::optional<RecordIndex::Line> readLine(const QByteArray &text)
{
    bool isNumber = false, isLink = true;
    RecordIndex::Line line;
    if (text.startsWith(heading)) {
        const QByteArray number = text.sliced(qsizetype(sizeof(heading)) - 1);
        line.number =
            number.first(std::max<qsizetype>(number.indexOf(':'), 0)).toLongLong(&isNumber);
        return isNumber ? std::optional(line) : std::nullopt;
    }
    const QByteArrayList fields = text.split(' ');
    if (fields.size() < 5 || fields.at(3).size() != digestDigits)
        return std::nullopt;
    line.number = fields.at(0).toLongLong(&isNumber);
    line.link = fields.at(1).toLongLong(&isLink);
    return isNumber && isLink ? std::optional(line) : std::nullopt;
}

} // namespace

QByteArray RecordIndex::path(const char *name) const
{
    return QFile::encodeName(directory.absoluteFilePath(QLatin1StringView(name)));
}

bool RecordIndex::open(const QDir &folderOfRecords, qint64 number)
{
    directory = folderOfRecords;
    folder = Descriptor(::open(
        QFile::encodeName(directory.path()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.isOpen())
        return false;
    file = Descriptor(::open(path(fileName).constData(), O_RDWR | O_APPEND | O_CLOEXEC));
    if (!file.isOpen())
        return errno == ENOENT && begin(number);
    fileSize = ::lseek(file.get(), 0, SEEK_END);
    return dropUnfinishedEnd() || begin(number);
}

// Cuts the file off after its last complete line. Returns false if there is none, or
// if the file cannot be read or cut; open() then begins a new index.
bool RecordIndex::dropUnfinishedEnd()
{
    QByteArray tail(std::min<qsizetype>(fileSize, tailSize), Qt::Uninitialized);
    if (::pread(file.get(), tail.data(), size_t(tail.size()), fileSize - tail.size())
        != tail.size())
        return false;
    const qint64 start = fileSize - tail.size();
    for (qsizetype end; (end = tail.lastIndexOf('\n')) >= 0; tail.truncate(end)) {
        const std::optional<Line> line =
            readLine(tail.first(end).sliced(tail.first(end).lastIndexOf('\n') + 1));
        if (!line)
            continue;
        newestNumber = line->number;
        noteLinks(tail.first(end));
        fileSize = start + end + 1;
        return ::ftruncate(file.get(), fileSize) == 0;
    }
    return false;
}

// The highest link number need not be in the last line.
void RecordIndex::noteLinks(const QByteArray &lines)
{
    const QByteArrayList all = lines.split('\n');
    for (const QByteArray &text : all) {
        if (const std::optional<Line> line = readLine(text))
            newestLink = std::max(newestLink, line->link);
    }
}

bool RecordIndex::begin(qint64 number)
{
    if (std::rename(path(fileName).constData(), path(previousName).constData()) != 0
        && errno != ENOENT)
        return false;
    file = Descriptor(::open(
        path(fileName).constData(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    fileSize = 0;
    newestNumber = number;
    added = heading + QByteArray::number(number) + ": number, link, bytes, BLAKE2b-256, file\n";
    return file.isOpen() && flush();
}

void RecordIndex::add(const Line &line)
{
    added += paddedNumber(line.number).toLatin1() + ' ' + QByteArray::number(line.link) + ' '
        + QByteArray::number(line.bytes) + ' ' + line.digest.toHex() + ' '
        + QFile::encodeName(line.file) + '\n';
    newestNumber = line.number;
    newestLink = std::max(line.link, newestLink);
}

bool RecordIndex::flush()
{
    while (!added.isEmpty()) {
        const ssize_t count = ::write(file.get(), added.constData(), size_t(added.size()));
        if (count < 0 && errno != EINTR)
            return false;
        fileSize += std::max<ssize_t>(count, 0);
        added.remove(0, std::max<ssize_t>(count, 0));
    }
    return ::fdatasync(file.get()) == 0 && ::fsync(folder.get()) == 0;
}

bool RecordIndex::startNewFileIfFull()
{
    return fileSize < fullSize || begin(newestNumber);
}
