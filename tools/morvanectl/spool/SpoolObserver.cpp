#include "SpoolObserver.h"

#include "FileCalls.h"
#include "FileTime.h"
#include "Packet.h"
#include "SentFolder.h"
#include "SpoolLock.h"
#include "UdpPace.h"
#include "ZlibStream.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr qsizetype mostFilesShown = 10;
constexpr qint64 mostBytesToCompress = 100'000'000; // takes some seconds
constexpr auto betweenFiles = 1s; // the pause after a delivery and the average wait for a scan
constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

SpoolState::Age ageOf(qint64 modified)
{
    return std::chrono::duration_cast<SpoolState::Age>(FileTime::age(modified));
}

// Returns why a file with this name cannot be sent over UDP; empty if it can.
QString wireProblem(const QString &name)
{
    switch (InformationRecord::problemWith(name)) {
    case InformationRecord::NameProblem::NotLatin1:
        return u"its name is not in Latin-1"_s;
    case InformationRecord::NameProblem::TooLong:
        return u"its name is longer than %1 characters"_s.arg(InformationRecord::maxName);
    case InformationRecord::NameProblem::None:
        break;
    }
    return {};
}

// Visits the files in the order of sending, except those that have gone meanwhile.
template <typename Visit> void forEachFile(const SpoolDirectory &folder, Visit visit)
{
    for (SpoolListing names = folder.list(); !names.isEmpty(); names.removeFirst()) {
        const QString name = names.first();
        if (const std::optional<SpoolDirectory::Mark> mark = folder.mark(name))
            visit(SpoolState::File{name, mark->size, ageOf(mark->modified)}, *mark);
    }
}

} // namespace

SpoolObserver::SpoolObserver(const QString &path, std::optional<quint16> udpTimeout)
    : spool(path)
    , timeout(udpTimeout)
{
}

QString SpoolObserver::problem() const
{
    const Descriptor folder(
        ::open(QFile::encodeName(spool.path()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.isOpen() ? QString() : qt_error_string();
}

SpoolState SpoolObserver::look()
{
    SpoolState state;
    state.path = spool.path();
    bytesLeftToCompress = mostBytesToCompress;
    compressedSizes.removeIf([](auto file) { return !QFile::exists(file.key()); });
    if (timeout)
        state.udpTransfer.emplace();
    if (const std::optional<qint64> time = SpoolLock::timeIn(spool))
        state.lockAge = ageOf(*time);
    addWaiting(state);
    addRefused(state);
    addUnacknowledged(state);
    return state;
}

void SpoolObserver::addWaiting(SpoolState &state)
{
    forEachFile(spool, [&](const SpoolState::File &file, const SpoolDirectory::Mark &mark) {
        ++state.files;
        state.bytes += file.bytes;
        if (!state.oldest || file.age > state.oldest->age)
            state.oldest = file;
        if (state.firstToBeSent.size() < mostFilesShown)
            state.firstToBeSent.append(file);
        if (state.udpTransfer)
            addTransfer(*state.udpTransfer, file.name, mark);
    });
}

void SpoolObserver::addTransfer(
    SpoolState::Transfer &transfer, const QString &name, const SpoolDirectory::Mark &mark)
{
    const std::optional<qint64> bytes = compressedSize(spool, name, mark);
    if (!wireProblem(name).isEmpty() || bytes > Packet::maxCompressed)
        return; // it will be refused
    transfer.isUpperBound |= !bytes;
    const qint64 packets =
        UdpPace::packets(bytes.value_or(std::min(mark.size, Packet::maxCompressed)));
    transfer.packets += packets;
    if (const auto duration = UdpPace::duration(packets, *timeout))
        *transfer.duration += *duration + betweenFiles;
    else
        transfer.duration.reset();
}

// Returns nullopt if the file cannot be read, or if compressing it would take too long.
std::optional<qint64> SpoolObserver::compressedSize(
    const SpoolDirectory &directory, const QString &name, const SpoolDirectory::Mark &mark)
{
    const QString path = directory.pathOf(name);
    const auto known = compressedSizes.constFind(path);
    if (known != compressedSizes.cend() && known->mark == mark)
        return known->bytes;
    QFile file;
    struct stat info;
    const int descriptor = mark.size > bytesLeftToCompress ? -1 : openRegularFile(path, info);
    if (descriptor < 0
        || !file.open(descriptor, QFile::ReadOnly | QFile::Unbuffered, QFile::AutoCloseHandle))
        return std::nullopt;
    bytesLeftToCompress -= mark.size;
    qint64 bytes = 0;
    const ZlibStream::Result result = ZlibStream::deflate(file, [&](QByteArrayView piece) {
        bytes += piece.size();
        return bytes <= Packet::maxCompressed;
    });
    if (result == ZlibStream::Result::SourceFailed)
        return std::nullopt;
    compressedSizes.insert(path, {mark, bytes});
    return bytes;
}

// --- files set aside ---

void SpoolObserver::addRefused(SpoolState &state)
{
    const SpoolDirectory refused = spool.refused();
    forEachFile(refused, [&](const SpoolState::File &file, const SpoolDirectory::Mark &mark) {
        state.refused.append({file, refusalReason(refused, file, mark)});
    });
}

QString SpoolObserver::refusalReason(
    const SpoolDirectory &refused, const SpoolState::File &file, const SpoolDirectory::Mark &mark)
{
    const QString problem = wireProblem(refused.nameBeforeRefusal(file.name));
    if (!problem.isEmpty())
        return problem;
    if (::access(QFile::encodeName(refused.pathOf(file.name)).constData(), R_OK) != 0)
        return u"it cannot be read: %1"_s.arg(qt_error_string());
    if (mark.size > Packet::maxCompressed
        && compressedSize(refused, file.name, mark) > Packet::maxCompressed)
        return u"it has more than %1 bytes when compressed"_s.arg(Packet::maxCompressed);
    return {};
}

// --- records between the spool and the peer ---

void SpoolObserver::addUnacknowledged(SpoolState &state) const
{
    const QStringList folders = SentFolder::namesIn(spool);
    for (const QString &name : folders) {
        const QString path = spool.pathOf(name);
        const Descriptor folder(::open(QFile::encodeName(path).constData(), folderFlags));
        if (!folder.isOpen()) {
            if (errno != ENOENT) // unless its module has just ended
                state.unacknowledged.append(
                    {.folder = name, .hasLivingOwner = true, .problem = qt_error_string()});
            continue;
        }
        SpoolState::Unacknowledged sent{
            .folder = name, .hasLivingOwner = SentFolder::hasOwner(folder.get())};
        const SpoolDirectory kept(path);
        forEachFile(kept, [&](const SpoolState::File &file, const SpoolDirectory::Mark &) {
            ++sent.files;
            sent.bytes += file.bytes;
        });
        Journal journal; // skips an entry that its owner is just writing
        if (journal.open(folder.get()))
            journal.forEach([&](const Journal::Entry &entry) {
                ++sent.files;
                sent.bytes += entry.content.size();
                return true;
            });
        state.unacknowledged.append(sent);
    }
}
