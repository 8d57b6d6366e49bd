#pragma once

#include "TTransferData.h"

#include <QObject>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

// A file as it was gathered: its packets from 1 on hold one zlib stream.
struct GatheredFile
{
    QString name; // as the peer gave it, a plain one
    QString path;
    QMap<int, TTransferData> packets;
    bool onlyIfClean = false; // nothing is written unless the stream ends as it should
    qsizetype attempt = 1;
};

// Inflates gathered files and writes them.
//
// A stream that breaks off or cannot be read further gives a file of what could be inflated, and
// that is said. One that is read to its end but has the wrong checksum gives none: it would look
// whole. A file that cannot be written for now is tried again every few seconds, but only until
// the next one begins.
//
// Owner:   the engine that gathers.
// Thread:  the one that constructed it, where all signals are emitted. The work is done there too,
//          at once, or on a thread of its own, see workInBackground().
// Errors:  never throws, but for want of memory.
class ReceivedFiles : public QObject
{
    Q_OBJECT
public:
    static constexpr std::chrono::seconds retryInterval{5};

    explicit ReceivedFiles(QObject *parent = nullptr);
    // What is being written then is not.
    ~ReceivedFiles() override;

    // From now on, and before the first file: works on a thread of its own, and has the disk hold
    // every file before it is reported.
    void workInBackground() { isBackground = true; }
    // A file that has more bytes when inflated is not written; 0 means no limit.
    void setMaxBytes(qint64 bytes) { maxBytes = bytes; }

    void write(GatheredFile file);
    // Another file begins: gives up the one that could not be written.
    void nextBegins();
    // Whether so much waits to be written that no further file should begin.
    [[nodiscard]] bool isFull() const;
    // Waits until everything is written that waits, but no longer than that.
    void finish(std::chrono::milliseconds longest);

Q_SIGNALS:
    void written(QString name);
    // A file that was to be written only if its stream is clean: it is not.
    void notClean(QString name);
    // What an operator should hear.
    void trouble(QString line);

private:
    enum class Outcome { Written, Cut, WrongChecksum, NotClean, TooLarge, NoFile, Interrupted };
    struct Result
    {
        GatheredFile file;
        Outcome outcome = Outcome::Interrupted;
        int error = 0; // why there is no file
    };
    [[nodiscard]] Outcome inflateAndWrite(const GatheredFile &file, int &error) const;
    void work();
    void enqueue(GatheredFile file);
    Q_INVOKABLE void takeResults();
    void report(Result result);
    void retryLater(Result result);

    bool isBackground = false;
    qint64 maxBytes = 0;
    std::optional<GatheredFile> unwritable; // to be tried again
    QTimer retryTimer;

    std::thread worker; // runs from the first file on
    std::atomic<bool> interrupted = false;
    mutable std::mutex mutex; // guards the rest
    std::condition_variable changed;
    std::deque<GatheredFile> waiting;
    std::deque<Result> results;
    qsizetype packetsWaiting = 0; // of the files that wait or are being written
    bool stopRequested = false;
};
