#include "SpoolObserver.h"

#include "Packet.h"
#include "SentFolder.h"
#include "UdpPace.h"
#include "WholeFile.h"
#include "ZlibStream.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr qsizetype mostFirst = 10; // files shown
constexpr qint64 mostCompressed = Packet::maxNumber * Packet::maxPayload; // bytes of one transfer
constexpr qint64 compressingBudget = 100'000'000; // bytes in one look, some seconds' work
constexpr auto betweenFiles = 1s; // the pause after a delivery, and on average the wait for a scan
constexpr std::chrono::milliseconds settling = 2s; // see hasOwner()
constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

SpoolState::Age ageOf(qint64 modified)
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(
        system_clock::now().time_since_epoch() - nanoseconds(modified));
}

SpoolState::Age ageOf(const struct stat &info)
{
    return ageOf(qint64(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec);
}

// Why no information record can hold the name; empty if one can.
QString wireProblem(const QString &name)
{
    if (QString::fromLatin1(name.toLatin1()) != name)
        return u"its name is not in Latin-1"_s;
    if (name.size() > InformationRecord::maxName)
        return u"its name is longer than %1 characters"_s.arg(InformationRecord::maxName);
    return {};
}

// The owner holds the kernel's lock on its folder from the moment after it has made it. A shared
// look in just that moment would keep it from getting the lock, so a folder in which something has
// happened lately counts as owned, unseen.
bool hasOwner(int folder)
{
    struct stat info;
    if (::fstat(folder, &info) != 0 || std::chrono::abs(ageOf(info)) < settling)
        return true;
    if (::flock(folder, LOCK_SH | LOCK_NB) != 0)
        return errno == EWOULDBLOCK;
    ::flock(folder, LOCK_UN);
    return false;
}

// In the order of sending, those that are still there when it is their turn.
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
    budget = compressingBudget;
    compressed.removeIf([](auto file) { return !QFile::exists(file.key()); });
    if (timeout)
        state.transfer.emplace();
    struct stat info;
    if (::lstat(
            QFile::encodeName(spool.pathOf(QString::fromLatin1(SpoolLock::fileName))).constData(),
            &info)
        == 0)
        state.lock = ageOf(info);
    lookAtWaiting(state);
    lookAtRefused(state);
    lookAtUnacknowledged(state);
    return state;
}

void SpoolObserver::lookAtWaiting(SpoolState &state)
{
    forEachFile(spool, [&](const SpoolState::File &file, const SpoolDirectory::Mark &mark) {
        ++state.files;
        state.bytes += file.bytes;
        if (!state.oldest || file.age > state.oldest->age)
            state.oldest = file;
        if (state.first.size() < mostFirst)
            state.first.append(file);
        if (state.transfer)
            addTransfer(*state.transfer, file.name, mark);
    });
}

void SpoolObserver::addTransfer(
    SpoolState::Transfer &transfer, const QString &name, const SpoolDirectory::Mark &mark)
{
    const std::optional<qint64> bytes = compressedSize(spool, name, mark);
    if (!wireProblem(name).isEmpty() || bytes > mostCompressed)
        return; // it will be refused
    transfer.isUpperBound |= !bytes;
    const qint64 packets = UdpPace::packets(bytes.value_or(std::min(mark.size, mostCompressed)));
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
    const auto known = compressed.constFind(path);
    if (known != compressed.cend() && known->mark == mark)
        return known->bytes;
    QFile file;
    struct stat info;
    const int descriptor = mark.size > budget ? -1 : openRegularFile(path, info);
    if (descriptor < 0
        || !file.open(descriptor, QFile::ReadOnly | QFile::Unbuffered, QFile::AutoCloseHandle))
        return std::nullopt;
    budget -= mark.size;
    qint64 bytes = 0;
    const ZlibStream::Result result = ZlibStream::deflate(file, [&](QByteArrayView piece) {
        bytes += piece.size();
        return bytes <= mostCompressed;
    });
    if (result == ZlibStream::Result::SourceFailed)
        return std::nullopt;
    compressed.insert(path, {mark, bytes});
    return bytes;
}

// --- files set aside ---

void SpoolObserver::lookAtRefused(SpoolState &state)
{
    const SpoolDirectory refused(spool.pathOf(u"refused"_s));
    forEachFile(refused, [&](const SpoolState::File &file, const SpoolDirectory::Mark &mark) {
        state.refused.append({file, refusalReason(refused, file, mark)});
    });
}

QString SpoolObserver::refusalReason(
    const SpoolDirectory &refused, const SpoolState::File &file, const SpoolDirectory::Mark &mark)
{
    // One of several with the same name bears a number behind it.
    const QString original = file.name.left(file.name.lastIndexOf(u'.'));
    const bool isNumbered = !original.isEmpty() && refused.mark(original);
    const QString problem = wireProblem(isNumbered ? original : file.name);
    if (!problem.isEmpty())
        return problem;
    if (::access(QFile::encodeName(refused.pathOf(file.name)).constData(), R_OK) != 0)
        return u"it cannot be read: %1"_s.arg(qt_error_string());
    if (mark.size > mostCompressed && compressedSize(refused, file.name, mark) > mostCompressed)
        return u"it has more than %1 bytes when compressed"_s.arg(mostCompressed);
    return {};
}

// --- records between the spool and the peer ---

void SpoolObserver::lookAtUnacknowledged(SpoolState &state) const
{
    const QStringList folders = QDir(spool.path())
                                    .entryList({QString::fromLatin1(SentFolder::prefix) + u'*'},
                                        QDir::Dirs | QDir::Hidden | QDir::NoSymLinks, QDir::Name);
    for (const QString &name : folders) {
        const QString path = spool.pathOf(name);
        const Descriptor folder(::open(QFile::encodeName(path).constData(), folderFlags));
        if (!folder.isOpen()) {
            if (errno != ENOENT) // its module may have ended meanwhile
                state.unacknowledged.append({name, 0, 0, true, qt_error_string()});
            continue;
        }
        SpoolState::Unacknowledged sent{name, 0, 0, hasOwner(folder.get())};
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
