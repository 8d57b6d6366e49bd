#include "Journal.h"

#include "SpoolLayout.h"

#include <QFile>
#include <QRandomGenerator>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/statvfs.h>
#include <type_traits>
#include <vector>
#include <zlib.h>

namespace {

constexpr quint32 fileMagic = 0x4C4E524A; // "JRNL"
constexpr quint32 fileVersion = 1;
constexpr off_t stateAt = 512, syncAt = 1024, ringAt = 4096;
constexpr qint64 leastBytes = 65'536;
constexpr quint64 shareOfFree = 8; // the ring takes at most 1/8 of the disk's free space
constexpr mode_t fileMode = 0600;

// Blocks of the file. Each fits into a sector, which disks write whole or not at all.
struct IdentityBlock
{
    quint32 magic;
    quint32 version;
    quint64 capacity;
    quint32 seed; // for the records' checksums; records of another journal do not match
    quint32 unused;
    char host[48];
    char boot[48];
};
struct StateBlock
{
    quint32 checksum; // of the rest
    quint32 unused;
    qint64 value;
};
struct RecordHeader
{
    quint32 magic;
    quint32 checksum; // of the rest, the name and the content
    quint64 position;
    qint64 time;
    quint32 contentBytes;
    quint16 nameBytes;
    quint16 unused;
};
constexpr quint32 recordMagic = 0x44524352; // "RCRD"
constexpr quint64 alignment = 64;
constexpr size_t checkedAt = offsetof(RecordHeader, position);

quint32 checksum(const char *bytes, size_t size, quint32 seed = 0)
{
    return quint32(::crc32_z(seed, reinterpret_cast<const Bytef *>(bytes), size));
}

template <typename Block> quint32 checksumOf(const Block &block)
{
    constexpr size_t from = offsetof(Block, checksum) + sizeof(block.checksum);
    return checksum(reinterpret_cast<const char *>(&block) + from, sizeof(block) - from);
}

bool writeAll(int file, const char *bytes, size_t size, off_t at)
{
    while (size > 0) {
        const ssize_t count = ::pwrite(file, bytes, size, at);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        bytes += count;
        size -= size_t(count);
        at += count;
    }
    return true;
}

template <typename Block> bool writeBlock(int file, const Block &block, off_t at)
{
    static_assert(std::is_trivially_copyable_v<Block> && sizeof(Block) <= 512);
    return writeAll(file, reinterpret_cast<const char *>(&block), sizeof(block), at);
}

template <typename Block> bool readBlock(int file, Block &block, off_t at)
{
    return ::pread(file, &block, sizeof(block), at) == ssize_t(sizeof(block));
}

bool saveNumber(int file, qint64 number, off_t at)
{
    StateBlock block = {0, 0, number};
    block.checksum = checksumOf(block);
    return writeBlock(file, block, at);
}

// Returns 0 if the block is damaged. Then all records count as in use and nothing as synced.
qint64 savedNumber(int file, off_t at)
{
    StateBlock block = {};
    return readBlock(file, block, at) && block.checksum == checksumOf(block) ? block.value : 0;
}

QByteArray firstLine(const char *path)
{
    QFile file(QString::fromLatin1(path));
    return file.open(QIODevice::ReadOnly) ? file.readLine().trimmed() : QByteArray();
}

template <size_t size> void copyText(char (&to)[size], const QByteArray &text)
{
    std::memcpy(to, text.constData(), size_t(std::min<qsizetype>(text.size(), size - 1)));
}

quint64 aligned(quint64 bytes)
{
    return (bytes + alignment - 1) / alignment * alignment;
}

quint64 recordBytes(qsizetype nameBytes, qsizetype contentBytes)
{
    return aligned(sizeof(RecordHeader) + quint64(nameBytes) + quint64(contentBytes));
}

// Reads the record at the start of bytes. Returns false if there is no whole record.
bool readRecord(QByteArrayView bytes, quint32 seed, RecordHeader &header, Journal::Entry &entry)
{
    if (size_t(bytes.size()) < sizeof(header))
        return false;
    std::memcpy(&header, bytes.data(), sizeof(header));
    const quint64 size = sizeof(header) + quint64(header.nameBytes) + header.contentBytes;
    if (header.magic != recordMagic || size > quint64(bytes.size())
        || header.checksum != checksum(bytes.data() + checkedAt, size_t(size) - checkedAt, seed))
        return false;
    entry.name = bytes.sliced(sizeof(header), header.nameBytes);
    entry.content = bytes.sliced(qsizetype(sizeof(header)) + header.nameBytes, header.contentBytes);
    entry.acceptedAt = header.time;
    entry.end = header.position + aligned(size);
    return true;
}

} // namespace

// --- the file ---

const Journal::Identity &Journal::here()
{
    static const Identity identity = {
        firstLine("/etc/machine-id"), firstLine("/proc/sys/kernel/random/boot_id")};
    return identity;
}

bool Journal::create(int folder)
{
    close();
    file = Descriptor(::openat(folder, SpoolLayout::journalFile,
        O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, fileMode));
    struct statvfs disk = {};
    if (!file.isOpen() || ::fstatvfs(file.get(), &disk) != 0)
        return false;
    const quint64 room = quint64(disk.f_bavail) * disk.f_frsize / shareOfFree;
    qint64 bytes = std::min(defaultBytes, qint64(room / alignment * alignment));
    if (bytes < leastBytes || ::posix_fallocate(file.get(), 0, ringAt + bytes) != 0)
        bytes = 0;
    if (writeHeader(bytes))
        return true;
    ::unlinkat(folder, SpoolLayout::journalFile, 0);
    close();
    return false;
}

bool Journal::writeHeader(qint64 ringBytes)
{
    checksumSeed = QRandomGenerator::global()->generate();
    IdentityBlock block = {fileMagic, fileVersion, quint64(ringBytes), checksumSeed, 0, {}, {}};
    copyText(block.host, here().host);
    copyText(block.boot, here().boot);
    capacity = block.capacity;
    return writeBlock(file.get(), block, 0) && saveNumber(file.get(), 0, stateAt);
}

bool Journal::open(int folder)
{
    close();
    file = Descriptor(::openat(folder, SpoolLayout::journalFile, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!file.isOpen())
        return false;
    IdentityBlock block = {};
    if (!readBlock(file.get(), block, 0) || block.magic != fileMagic || block.version != fileVersion
        || block.capacity > quint64(defaultBytes)) {
        file = Descriptor();
        errno = EBADMSG;
        return false;
    }
    capacity = block.capacity;
    checksumSeed = block.seed;
    head = quint64(savedNumber(file.get(), stateAt));
    tail = head;
    scan(0, capacity, [this](const Entry &entry) {
        tail = entry.end;
        return true;
    });
    writtenEnd = tail;
    return true;
}

void Journal::close()
{
    file = Descriptor();
    capacity = head = tail = writtenEnd = 0;
    staged.clear();
    failed = false;
}

Journal::Identity Journal::identity() const
{
    IdentityBlock block = {};
    if (!readBlock(file.get(), block, 0))
        return {};
    return {QByteArray(block.host), QByteArray(block.boot)};
}

qint64 Journal::syncedUntil() const
{
    return savedNumber(file.get(), syncAt);
}

bool Journal::noteSynced(int descriptor, qint64 time)
{
    return saveNumber(descriptor, time, syncAt);
}

bool Journal::sync(int descriptor)
{
    return ::fdatasync(descriptor) == 0;
}

// --- adding records ---

// Returns the position for a record of that size. If it does not fit before the ring's end, it goes
// to the ring's start.
quint64 Journal::placeFor(qsizetype bytes) const
{
    Q_ASSERT(capacity > 0);
    const quint64 at = tail % capacity;
    return at + quint64(bytes) <= capacity ? tail : tail - at + capacity;
}

bool Journal::hasRoomFor(qsizetype nameBytes, qsizetype contentBytes) const
{
    const quint64 bytes = recordBytes(nameBytes, contentBytes);
    return !failed && contentBytes <= largestContent && bytes <= capacity / 4
        && placeFor(qsizetype(bytes)) + bytes - head <= capacity;
}

quint64 Journal::add(QByteArrayView name, qint64 time, QByteArrayView kind, QByteArrayView payload)
{
    const qsizetype contentBytes = kind.size() + payload.size();
    const quint64 bytes = recordBytes(name.size(), contentBytes);
    Q_ASSERT(hasRoomFor(name.size(), contentBytes));
    Q_ASSERT(name.size() <= std::numeric_limits<quint16>::max());
    const quint64 place = placeFor(qsizetype(bytes));
    if (place % capacity == 0) { // also if the record before ends exactly at the ring's end
        failed = !writeStaged(); // staged bytes must be contiguous in the ring
        tail = writtenEnd = place;
    }
    const qsizetype at = staged.size();
    staged.resize(at + qsizetype(bytes));
    Q_ASSERT(sizeof(RecordHeader) + size_t(name.size() + contentBytes) <= bytes);
    char *to = staged.data() + at;
    RecordHeader header = {
        recordMagic, 0, place, time, quint32(contentBytes), quint16(name.size()), 0};
    char *body = to + sizeof(header);
    std::memcpy(body, name.data(), size_t(name.size()));
    std::memcpy(body + name.size(), kind.data(), size_t(kind.size()));
    std::memcpy(body + name.size() + kind.size(), payload.data(), size_t(payload.size()));
    std::memcpy(to, &header, sizeof(header));
    std::memset(body + name.size() + contentBytes, 0,
        size_t(to + bytes - body - name.size() - contentBytes));
    const size_t checked = sizeof(header) - checkedAt + size_t(name.size() + contentBytes);
    header.checksum = checksum(to + checkedAt, checked, checksumSeed);
    std::memcpy(to, &header, sizeof(header));
    tail = place + bytes;
    return tail;
}

bool Journal::writeStaged()
{
    const off_t at = ringAt + off_t(writtenEnd % std::max<quint64>(capacity, 1));
    Q_ASSERT(at + staged.size() <= ringAt + off_t(capacity));
    if (!writeAll(file.get(), staged.constData(), size_t(staged.size()), at))
        return false;
    writtenEnd += quint64(staged.size());
    staged.resize(0);
    return true;
}

bool Journal::commit()
{
    if (!staged.isEmpty() && !failed)
        failed = !writeStaged();
    return !failed;
}

void Journal::free(quint64 position)
{
    if (position <= head)
        return;
    head = std::min(position, tail);
    std::ignore =
        saveNumber(file.get(), qint64(head), stateAt); // if it fails, records are sent twice
}

// --- visiting records ---

bool Journal::forEach(const std::function<bool(const Entry &)> &visit) const
{
    if (head == writtenEnd)
        return true;
    const quint64 from = head % capacity;
    const bool isOneSpan = from + (writtenEnd - head) <= capacity;
    return isOneSpan ? scan(from, writtenEnd - head, visit) : scan(0, capacity, visit);
}

// Checks every offset at which a record can begin, because after a power cut any part of the ring
// may be missing. Ignores records of earlier rounds, whose positions lie before the head.
bool Journal::scan(
    quint64 from, quint64 size, const std::function<bool(const Entry &)> &visit) const
{
    QByteArray bytes(qsizetype(size), Qt::Uninitialized);
    bytes.truncate(std::max<qsizetype>(
        ::pread(file.get(), bytes.data(), size_t(size), ringAt + off_t(from)), 0));
    std::vector<std::pair<quint64, Entry>> foundAt;
    for (quint64 at = 0; at < quint64(bytes.size());) {
        RecordHeader header;
        Entry entry;
        const bool isWhole =
            readRecord(QByteArrayView(bytes).sliced(qsizetype(at)), checksumSeed, header, entry);
        const bool isOwn = isWhole && header.position % capacity == from + at;
        if (isOwn && header.position >= head && header.position < head + capacity)
            foundAt.emplace_back(header.position, entry);
        at += isOwn ? entry.end - header.position : alignment;
    }
    std::sort(foundAt.begin(), foundAt.end(),
        [](const auto &a, const auto &b) { return a.first < b.first; });
    return std::all_of(
        foundAt.begin(), foundAt.end(), [&](const auto &record) { return visit(record.second); });
}
