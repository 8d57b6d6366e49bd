#include "Kit.h"

#include "BusFrame.h"
#include "DataRecord.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr auto patience = 30s;
constexpr auto poll = 200us;
constexpr auto listenQueue = 16;
constexpr auto ramDisk = "/dev/shm";
constexpr char kind[] = "tempdb";

double secondsOf(clockid_t clock)
{
    timespec time;
    ::clock_gettime(clock, &time);
    return double(time.tv_sec) + double(time.tv_nsec) * 1e-9;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string textOf(const std::filesystem::path &file)
{
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

sockaddr_un localAddress(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        fail("too long for a socket: " + path);
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

template <typename Address> const sockaddr *plain(const Address &address)
{
    return reinterpret_cast<const sockaddr *>(&address);
}

// Returns the number of the line `name` in one of the kernel's status files.
double valueIn(const std::string &status, const std::string &name)
{
    const size_t at = status.find('\n' + name + ':');
    return at == std::string::npos ? 0 : std::atof(status.c_str() + at + name.size() + 2);
}

// Calls `visit` with the /proc folder of every thread of `process`.
template <typename Visit> void forEachThread(pid_t process, Visit visit)
{
    const std::string folder = "/proc/" + std::to_string(process) + "/task";
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        visit(entry.path());
}

} // namespace

Options::Options(int argc, char *argv[])
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") != 0)
            fail(std::string("unknown argument: ") + argv[i]);
        quick = true;
    }
    ::signal(SIGPIPE, SIG_IGN);
}

void fail(const std::string &what)
{
    std::fprintf(stderr, "%s (%s)\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

ssize_t check(ssize_t result, const char *what)
{
    if (result < 0)
        fail(what);
    return result;
}

double seconds()
{
    return secondsOf(CLOCK_MONOTONIC);
}

double threadSeconds()
{
    return secondsOf(CLOCK_THREAD_CPUTIME_ID);
}

void waitUntil(const std::function<bool()> &condition, const char *what)
{
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            fail(std::string("did not come: ") + what);
        std::this_thread::sleep_for(poll);
    }
}

// --- the table ---

Figure::Figure(std::string figureTitle, std::string figureUnit, std::string figureGoal)
    : title(std::move(figureTitle))
    , unit(std::move(figureUnit))
    , goal(std::move(figureGoal))
{
}

void Figure::add(double subject, double probe)
{
    pairs.emplace_back(subject, probe);
}

void Figure::print() const
{
    std::vector<double> subjects, probes, ratios;
    for (const auto &[subject, probe] : pairs) {
        subjects.push_back(subject);
        probes.push_back(probe);
        ratios.push_back(subject / probe);
    }
    const auto [least, most] = std::minmax_element(ratios.begin(), ratios.end());
    std::printf("%-50s %10.4g %10.4g %-11s %6.2f  %5.2f to %-6.2f %s\n", title.c_str(),
        median(subjects), median(probes), unit.c_str(), median(ratios), *least, *most,
        goal.c_str());
    std::fflush(stdout);
}

// --- sockets ---

Socket::~Socket()
{
    if (number >= 0)
        ::close(number);
}

Listener::Listener()
    : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    check(::bind(socket.get(), plain(address), size), "bind");
    check(::listen(socket.get(), listenQueue), "listen");
    ::getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &size);
    number = ntohs(address.sin_port);
}

Socket Listener::accept() const
{
    return Socket(int(check(::accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC), "accept")));
}

Socket listenLocal(const std::string &path)
{
    Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = localAddress(path);
    check(::bind(socket.get(), plain(address), sizeof(address)), "bind");
    check(::listen(socket.get(), listenQueue), "listen");
    return socket;
}

Socket connectLocal(const std::string &path)
{
    Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = localAddress(path);
    waitUntil([&] { return ::connect(socket.get(), plain(address), sizeof(address)) == 0; },
        path.c_str());
    return socket;
}

void writeAll(int socket, const char *bytes, size_t size)
{
    while (size > 0) {
        const auto count = size_t(check(::write(socket, bytes, size), "write"));
        bytes += count;
        size -= count;
    }
}

void readBytes(int socket, size_t count)
{
    static std::vector<char> buffer(1 << 20);
    const timeval timeout = {patience.count(), 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    while (count > 0) {
        const ssize_t got = ::read(socket, buffer.data(), std::min(count, buffer.size()));
        if (got <= 0)
            fail("bytes that must come do not come");
        count -= size_t(got);
    }
}

// --- folders and programs ---

void writeNoise(const std::string &path, size_t bytes)
{
    std::vector<char> noise(bytes);
    std::mt19937 random(1);
    std::generate(noise.begin(), noise.end(), [&] { return char(random()); });
    std::FILE *file = std::fopen(path.c_str(), "w");
    if (!file || std::fwrite(noise.data(), 1, noise.size(), file) != noise.size())
        fail("cannot write " + path);
    std::fclose(file);
}

RamFolder::RamFolder()
{
    const char *disk = std::getenv("BENCH_FOLDER");
    folder = std::string(disk ? disk : ramDisk) + "/bench-XXXXXX";
    if (!::mkdtemp(folder.data()))
        fail("no folder can be made on the disk to measure");
    folder += '/';
}

RamFolder::~RamFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

std::string RamFolder::makeFolder(const std::string &name) const
{
    std::filesystem::create_directory(path(name));
    return path(name);
}

void RamFolder::writeFile(const std::string &name, const std::string &content) const
{
    if (!std::ofstream(path(name)).write(content.data(), std::streamsize(content.size())))
        fail("cannot write " + name);
}

Program::Program(
    const std::string &name, const RamFolder &folder, const std::vector<std::string> &arguments)
{
    const std::string program =
        std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
    std::vector<char *> list = {const_cast<char *>(program.c_str())};
    for (const std::string &argument : arguments)
        list.push_back(const_cast<char *>(argument.c_str()));
    list.push_back(nullptr);
    const std::string place = folder.path();

    process = pid_t(check(::fork(), "fork"));
    if (process != 0)
        return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // the child must not outlive a program that fails
    ::setenv("TMPDIR", place.c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", place.c_str(), 1);
    ::unsetenv("XDG_RUNTIME_DIR");
    ::setenv("QT_LOGGING_RULES", "default.debug=false", 1);
    if (::chdir(place.c_str()) == 0)
        ::execv(program.c_str(), list.data());
    std::perror(program.c_str());
    ::_exit(1);
}

Program::~Program()
{
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
}

double Program::processorSeconds() const
{
    double nanoseconds = 0;
    forEachThread(process, [&](const std::filesystem::path &thread) {
        nanoseconds += std::atof(textOf(thread / "schedstat").c_str());
    });
    return nanoseconds * 1e-9;
}

double Program::wakeUps() const
{
    double switches = 0;
    forEachThread(process, [&](const std::filesystem::path &thread) {
        switches += valueIn(textOf(thread / "status"), "voluntary_ctxt_switches");
    });
    return switches;
}

double Program::kilobytes(const char *line) const
{
    return valueIn(textOf("/proc/" + std::to_string(process) + "/status"), line);
}

std::string settings(const std::string &mainLines)
{
    return "[Base]\nAdminServerName=\nServerName=me\n[Main]\nTempDir=spool\nHost=127.0.0.1\n"
           "LiveMessageTimeout=60000\n"
        + mainLines;
}

Module::Module(const RamFolder &folder, const std::string &mainLines)
    : Program("morvane", (folder.writeFile("module.ini", settings(mainLines)), folder),
        {"-settings", "module.ini"})
{
}

// --- records ---

std::string recordName(int number)
{
    std::array<char, 16> name;
    std::snprintf(name.data(), name.size(), "r%09d", number);
    return name.data();
}

QByteArray recordFrame(int number, int fileBytes)
{
    DataRecord record;
    record.kind = kind;
    record.fileName = QString::fromStdString(recordName(number));
    record.payload = QByteArray(fileBytes - qsizetype(std::strlen(kind)), 'x');
    return BusFrame::makeData(1, record.write());
}
