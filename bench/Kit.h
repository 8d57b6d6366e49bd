#pragma once

#include <QByteArray>

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

// What the measuring programs share. They end at once, with a word of why, when anything fails: a
// figure from a run that went wrong is worse than none.

// The arguments of every program: "--quick" for a smoke run, whose figures mean nothing.
struct Options
{
    Options(int argc, char *argv[]);
    [[nodiscard]] int runs() const { return quick ? 1 : 5; }
    // How much to do: the first number, or the second one in a smoke run.
    [[nodiscard]] int amount(int full, int smoke) const { return quick ? smoke : full; }

    bool quick = false;
};

// Says what is wrong, and the system's reason, and ends the program.
[[noreturn]] void fail(const std::string &what);
// Ends the program if a system call has failed; gives its result otherwise.
ssize_t check(ssize_t result, const char *what);

[[nodiscard]] double seconds(); // of the monotonic clock
[[nodiscard]] double threadSeconds(); // of processor time, of the calling thread
// Tries until a condition holds; the program ends if that takes half a minute.
void waitUntil(const std::function<bool()> &condition, const char *what);

// One line of the table: subject and probe, measured in turn, run by run.
class Figure
{
public:
    // An empty goal for a figure that is only to be known.
    Figure(std::string title, std::string unit, std::string goal = {});
    void add(double subject, double probe);
    // Medians of the subject, the probe and their ratio, with the ratio's extremes.
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
// Reads so many bytes and forgets them.
void readBytes(int socket, size_t count);

// Makes a file of so many bytes that cannot be compressed.
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

// A program in a folder of its own, which is also its bus. Killed at the end of the scope.
class Program
{
public:
    // One that stands beside this one.
    Program(const std::string &name, const RamFolder &folder,
        const std::vector<std::string> &arguments);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    [[nodiscard]] double processorSeconds() const; // so far, of all its threads
    [[nodiscard]] double wakeUps() const; // so far: how often a thread of it has begun to wait
    [[nodiscard]] double kilobytes(const char *line) const; // VmRSS or VmHWM

private:
    pid_t process;
};

// The settings of a module: its bus name is "me", its spool the folder "spool".
[[nodiscard]] std::string settings(const std::string &mainLines);
// The real module, on settings made of these lines.
class Module : public Program
{
public:
    Module(const RamFolder &folder, const std::string &mainLines);
};

// The name of a numbered record; the numbers' order is the names'.
[[nodiscard]] std::string recordName(int number);
// A data frame of the bus, for a spool file of so many bytes.
[[nodiscard]] QByteArray recordFrame(int number, int fileBytes);
