// The probe for the figures from the bus to the peer: does what the module does with a record, in
// the fewest system calls. It uses no Qt, remembers nothing about acknowledgements and handles no
// errors beyond exiting.
//
//     bench_bare SOCKET SPOOL PORT
//
//     bench_bare SOCKET SPOOL PORT ring
//
// Connects to the port on the loopback address and sends the files in the spool. Then listens on
// the Unix socket, accepts one connection and forwards every record: lock, write, rename, unlock,
// list, read, remove, and one send for all records of one read. With "ring" no record becomes a
// file: each is copied with a checksum into a mapped file, and the directory is checked once for
// each read.

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <endian.h>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace {

constexpr size_t readSize = 256 * 1024; // bytes asked for at once
constexpr size_t ringSize = 8 * 1024 * 1024;
constexpr size_t sendSize = 1024 * 1024; // buffered bytes after which a listing is interrupted

void orEnd(bool success, const char *what)
{
    if (success)
        return;
    std::perror(what);
    std::exit(1);
}

uint32_t bigEndian32(const char *bytes)
{
    uint32_t number;
    std::memcpy(&number, bytes, sizeof(number));
    return be32toh(number);
}

struct Bytes
{
    const char *data;
    size_t size;
};

Bytes takeField(const char *&at)
{
    const size_t size = bigEndian32(at);
    const Bytes field = {at + 4, size};
    at += 4 + size;
    return field;
}

class BareRoad
{
public:
    BareRoad(const std::string &spoolFolder, int peerPort);
    // Moves all files of the spool into the buffer.
    void takeSpool();
    void takeFrame(const char *body);
    void flush();
    void useRing();

private:
    void writeFile(const std::string &name, Bytes kind, Bytes payload) const;
    void takeFile(const std::string &name);
    void keepInRing(Bytes name, Bytes kind, Bytes payload);

    const std::string spool;
    const std::string lock = spool + ".lock";
    const std::string hidden = spool + ".incoming";
    int link;
    std::vector<char> buffer; // the records of the next send
    char *ring = nullptr; // a mapped file, if used
    size_t ringAt = 0;
};

BareRoad::BareRoad(const std::string &spoolFolder, int peerPort)
    : spool(spoolFolder)
    , link(::socket(AF_INET, SOCK_STREAM, 0))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(peerPort));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto *plain = reinterpret_cast<const sockaddr *>(&address);
    orEnd(::connect(link, plain, sizeof(address)) == 0, "connect");
}

void BareRoad::writeFile(const std::string &name, Bytes kind, Bytes payload) const
{
    const int lockFile = ::open(lock.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    const int file = ::open(hidden.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    iovec parts[] = {{const_cast<char *>(kind.data), kind.size},
        {const_cast<char *>(payload.data), payload.size}};
    orEnd(::writev(file, parts, 2) > 0, "write");
    ::close(file);
    orEnd(::rename(hidden.c_str(), (spool + name).c_str()) == 0, "rename");
    ::unlink(lock.c_str());
    ::close(lockFile);
}

void BareRoad::takeFile(const std::string &name)
{
    const std::string path = spool + name;
    const int file = ::open(path.c_str(), O_RDONLY);
    struct stat info;
    orEnd(::fstat(file, &info) == 0, "stat");
    const auto size = size_t(info.st_size);
    const uint32_t length = htole32(uint32_t(size));
    const size_t start = buffer.size();
    buffer.resize(start + sizeof(length) + size);
    std::memcpy(buffer.data() + start, &length, sizeof(length));
    orEnd(::read(file, buffer.data() + start + sizeof(length), size) == info.st_size, "read");
    ::close(file);
    ::unlink(path.c_str());
}

void BareRoad::takeSpool()
{
    if (::access(lock.c_str(), F_OK) == 0)
        return;
    std::vector<std::string> names;
    DIR *directory = ::opendir(spool.c_str());
    while (const dirent *entry = ::readdir(directory)) {
        if (entry->d_name[0] != '.')
            names.push_back(entry->d_name);
    }
    ::closedir(directory);
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        takeFile(name);
        if (buffer.size() >= sendSize)
            flush();
    }
}

void BareRoad::useRing()
{
    const int file = ::open((spool + ".ring").c_str(), O_RDWR | O_CREAT, 0600);
    orEnd(::posix_fallocate(file, 0, off_t(ringSize)) == 0, "fallocate");
    void *memory = ::mmap(nullptr, ringSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    orEnd(memory != MAP_FAILED, "mmap");
    ring = static_cast<char *>(memory);
}

void BareRoad::keepInRing(Bytes name, Bytes kind, Bytes payload)
{
    const uint32_t length = htole32(uint32_t(kind.size + payload.size));
    const size_t size = sizeof(uint32_t) + name.size + kind.size + payload.size;
    orEnd(size < ringSize, "a record for the ring");
    if (ringAt + size > ringSize)
        ringAt = 0;
    char *const start = ring + ringAt;
    char *to = start + sizeof(uint32_t);
    for (const Bytes &part : {name, kind, payload}) {
        std::memcpy(to, part.data, part.size);
        to += part.size;
    }
    const auto *bytes = reinterpret_cast<const Bytef *>(start + sizeof(uint32_t));
    const auto checksum = uint32_t(::crc32_z(0, bytes, size - sizeof(uint32_t)));
    std::memcpy(start, &checksum, sizeof(checksum));
    ringAt += size;

    const char *lengthBytes = reinterpret_cast<const char *>(&length);
    buffer.insert(buffer.end(), lengthBytes, lengthBytes + sizeof(length));
    buffer.insert(buffer.end(), kind.data, kind.data + kind.size);
    buffer.insert(buffer.end(), payload.data, payload.data + payload.size);
}

void BareRoad::takeFrame(const char *body)
{
    const char *at = body + 1 + 4; // the version and the count of the data
    const Bytes kind = takeField(at);
    const Bytes fileName = takeField(at);
    const Bytes payload = takeField(at);
    if (ring)
        return keepInRing(fileName, kind, payload);
    std::string name;
    for (size_t i = 1; i < fileName.size; i += 2)
        name += fileName.data[i]; // of the UTF-16 code unit of a letter or a digit
    writeFile(name, kind, payload);
    takeSpool();
}

void BareRoad::flush()
{
    struct stat info;
    orEnd(!ring || ::stat(spool.c_str(), &info) == 0, "stat");
    for (size_t sent = 0; sent < buffer.size();) {
        const ssize_t count = ::send(link, buffer.data() + sent, buffer.size() - sent, 0);
        orEnd(count > 0, "send");
        sent += size_t(count);
    }
    buffer.clear();
}

int acceptOne(const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    const int server = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const auto *plain = reinterpret_cast<const sockaddr *>(&address);
    orEnd(::bind(server, plain, sizeof(address)) == 0 && ::listen(server, 1) == 0, "listen");
    return ::accept(server, nullptr, nullptr);
}

void carry(BareRoad &road, int bus)
{
    std::vector<char> bytes;
    size_t filled = 0;
    for (;;) {
        bytes.resize(std::max(bytes.size(), filled + readSize));
        const ssize_t count = ::read(bus, bytes.data() + filled, readSize);
        if (count <= 0)
            return;
        filled += size_t(count);
        size_t at = 0;
        while (filled - at >= 4 && filled - at - 4 >= bigEndian32(bytes.data() + at)) {
            road.takeFrame(bytes.data() + at + 4);
            at += 4 + bigEndian32(bytes.data() + at);
        }
        std::memmove(bytes.data(), bytes.data() + at, filled - at);
        filled -= at;
        road.flush();
    }
}

} // namespace

int main(int argc, char *argv[])
{
    orEnd(argc == 4 || argc == 5, "SOCKET SPOOL PORT [ring]");
    BareRoad road(std::string(argv[2]) + '/', std::atoi(argv[3]));
    if (argc == 5)
        road.useRing();
    road.takeSpool();
    road.flush();
    carry(road, acceptOne(argv[1]));
}
