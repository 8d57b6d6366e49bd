#pragma once

#include <QByteArray>

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

// Shared by the measuring programs. When anything fails they print why and exit at once, because a
// figure from a failed run is worse than none.

// The arguments of every program. "--quick" asks for a smoke run, whose figures mean nothing.
struct Options
{
    Options(int argc, char *argv[]);
    [[nodiscard]] int runs() const { return quick ? 1 : 5; }
    // Returns `full`, or `smoke` in a smoke run.
    [[nodiscard]] int amount(int full, int smoke) const { return quick ? smoke : full; }

    bool quick = false;
};

// Prints `what` and the text of errno, then exits.
[[noreturn]] void fail(const std::string &what);
// Returns `result`, or fails if it is the -1 of a failed system call.
ssize_t check(ssize_t result, const char *what);

[[nodiscard]] double seconds(); // of the monotonic clock
[[nodiscard]] double threadSeconds(); // of processor time, of the calling thread
// Polls until `condition` holds. Fails after half a minute.
void waitUntil(const std::function<bool()> &condition, const char *what);

// One line of the table. Each run measures the subject and then the probe.
class Figure
{
public:
    // `goal` is empty for a figure that is shown for information only.
    Figure(std::string title, std::string unit, std::string goal = {});
    void add(double subject, double probe);
    // Prints the medians of the subject, the probe and their ratio, and the ratio's extremes.
    void print() const;

private:
    std::string title;
    std::string unit;
    std::string goal;
    std::vector<std::pair<double, double>> pairs;
};

// A file descriptor that is closed at the end of its scope.
class Socket
{
public:
    explicit Socket(int descriptor = -1)
        : number(descriptor)
    {
    }
    Socket(Socket &&other) noexcept
        : number(std::exchange(other.number, -1))
    {
    }
    Socket &operator=(Socket &&other) noexcept
    {
        std::swap(number, other.number);
        return *this;
    }
    ~Socket();
    [[nodiscard]] int get() const { return number; }

private:
    int number;
};

// A TCP listener on a free port of the loopback address.
class Listener
{
public:
    Listener();
    [[nodiscard]] int port() const { return number; }
    [[nodiscard]] Socket accept() const;

private:
    Socket socket;
    int number;
};

[[nodiscard]] Socket listenLocal(const std::string &path);
[[nodiscard]] Socket connectLocal(const std::string &path); // waits for the server
void writeAll(int socket, const char *bytes, size_t size);
// Reads and drops `count` bytes.
void readBytes(int socket, size_t count);

// Writes a file of `bytes` random bytes, which cannot be compressed.
void writeNoise(const std::string &path, size_t bytes);

// A folder that goes with the object: on the RAM disk, or in the folder that BENCH_FOLDER names.
class RamFolder
{
public:
    RamFolder();
    ~RamFolder();
    RamFolder(const RamFolder &) = delete;
    RamFolder &operator=(const RamFolder &) = delete;
    [[nodiscard]] std::string path(const std::string &name = {}) const { return folder + name; }
    std::string makeFolder(const std::string &name) const;
    void writeFile(const std::string &name, const std::string &content) const;

private:
    std::string folder; // with a "/" at the end
};

// A running program. Its working directory is `folder`, which also holds its bus sockets. The
// destructor kills it.
class Program
{
public:
    // Starts the program `name` from the directory of the calling program.
    Program(const std::string &name, const RamFolder &folder,
        const std::vector<std::string> &arguments);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    [[nodiscard]] double processorSeconds() const; // so far, of all its threads
    // Returns how often a thread of the program has begun to wait so far.
    [[nodiscard]] double wakeUps() const;
    // `line` is VmRSS or VmHWM.
    [[nodiscard]] double kilobytes(const char *line) const;

private:
    pid_t process;
};

// Returns the settings of a module with the bus name "me" and the spool folder "spool".
[[nodiscard]] std::string settings(const std::string &mainLines);
// The module that ships, started with settings(mainLines).
class Module : public Program
{
public:
    Module(const RamFolder &folder, const std::string &mainLines);
};

// Returns the name of record `number`. Names sort in the order of their numbers.
[[nodiscard]] std::string recordName(int number);
// Returns a data frame of the bus that becomes a spool file of `fileBytes` bytes.
[[nodiscard]] QByteArray recordFrame(int number, int fileBytes);
