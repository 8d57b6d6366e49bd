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

class WholeFile;

// A completely received file. Its packets from 1 on contain one zlib stream.
struct GatheredFile
{
    QString name; // as sent by the peer; a plain name
    QString path;
    QMap<int, TTransferData> packets;
    bool onlyIfClean = false; // write nothing unless the stream is complete and correct
    qsizetype attempt = 1;
};

// Inflates received files and writes them to the disk.
//
// If a stream is cut short or corrupt, the part that could be inflated is written and the damage is
// reported. If a stream is complete but its checksum is wrong, nothing is written, because the file
// would look intact. If a file cannot be written, it is tried again every few seconds until the
// next file begins.
//
// Thread:  the one that constructed it, which also emits all signals. Inflating and writing happen
//          there too, within write(), unless workInBackground() was called.
class ReceivedFiles : public QObject
{
    Q_OBJECT
public:
    static constexpr std::chrono::seconds retryInterval{5};

    explicit ReceivedFiles(QObject *parent = nullptr);
    // Abandons the file that is being written.
    ~ReceivedFiles() override;

    // Inflates and writes on a separate thread, and flushes every file to the disk before it is
    // reported. Call before the first file.
    void workInBackground();
    // Limits the inflated size; larger files are not written. 0, the default, means no limit.
    void setMaxBytes(qint64 bytes) { maxBytes = bytes; }

    void write(GatheredFile file);
    // Gives up the file that could not be written, because another one begins.
    void giveUpUnwritable();
    // Returns whether so much waits to be written that no further file should begin.
    [[nodiscard]] bool isFull() const;
    // Waits until all files are written, but no longer than longest. Reports files that are lost.
    void finish(std::chrono::milliseconds longest);

Q_SIGNALS:
    void written(QString name);
    // A file with onlyIfClean was not written, because its stream is damaged.
    void notClean(QString name);
    // Reports a problem to the operator.
    void trouble(QString line);

private:
    enum class Outcome {
        Written,
        Cut,
        WrongChecksum,
        NotClean,
        TooLarge,
        CannotWrite,
        Interrupted
    };
    struct Result
    {
        GatheredFile file;
        Outcome outcome = Outcome::Interrupted;
        int writeError = 0; // errno, with CannotWrite
    };
    [[nodiscard]] Result inflateAndWrite(GatheredFile file) const;
    [[nodiscard]] Outcome inflateInto(WholeFile &whole, const GatheredFile &file) const;
    void work();
    void enqueue(GatheredFile file);
    void takeResults();
    void report(Result result);
    void retryLater(Result result);

    bool isBackground = false;
    qint64 maxBytes = 0;
    std::optional<GatheredFile> fileToRetry;
    QTimer retryTimer;

    std::thread worker; // starts with the first file
    std::atomic<bool> interrupted = false;
    mutable std::mutex mutex; // guards the members below
    std::condition_variable changed;
    std::deque<GatheredFile> waiting;
    std::deque<Result> results;
    qsizetype packetsWaiting = 0; // in files that wait or are being written
    bool stopRequested = false;
};
