#pragma once

#include "OnItsWay.h"
#include "QuietSpool.h"
#include "SpoolLock.h"
#include "SpoolScan.h"

#include <QDeadlineTimer>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <functional>
#include <thread>

class QTcpSocket;
struct Counters;
struct DataRecord;

// Sends records over the TCP link, one for each file of the spool, in the order of the listing.
//
// A record that arrives while nothing waits takes a direct path: it is written to the journal and
// sent. It becomes a file only if the link ends before it is acknowledged.
//
// At most 1 MiB, or one larger record, waits in the socket's buffer. The listing continues when the
// buffer drains. If the peer's program acknowledges, the link is ended when a number of the peer
// cannot be true, and when no number comes for too long.
//
// Owner:   Morvane, which also owns the socket and connects it.
// Thread:  main thread. A listing is made and sent in pieces of some milliseconds.
// Errors:  a file that cannot be sent now stays in the spool for the next listing.
class SpoolSender : public QObject
{
    Q_OBJECT
public:
    using WriteFile = std::function<void(const QString &name, const QByteArray &content)>;
    struct Times
    {
        // The link is dead when sent bytes stay unacknowledged for this long.
        std::chrono::milliseconds deadAfter;
        // If set, the peer's program must acknowledge each record within this time. Otherwise its
        // kernel acknowledges.
        std::optional<std::chrono::milliseconds> acknowledgement;
    };

    // Calls `writeFile` for each record that the direct path could not take after all, in the order
    // of arrival.
    SpoolSender(QTcpSocket &link, SpoolKeeper &keeper, Counters &counters, MessageSink log,
        const Times &times, WriteFile writeFile);
    ~SpoolSender() override;

    // The owner calls this first when the link has come up. If it returns false, the link cannot be
    // watched and must not be used.
    [[nodiscard]] bool linkUp();
    // Sends the whole spool. Does nothing while the link is down.
    void send();
    // Takes a record for the direct path, without a file. Returns false if the record must become a
    // file. The next commit() sends the records taken.
    [[nodiscard]] bool sendAtOnce(const DataRecord &record);
    void commit();
    void sendKeepAlive();
    // Waits for acknowledgements before the process ends, for a second at most. Then returns the
    // unacknowledged records to the spool.
    void stop();
    [[nodiscard]] const OnItsWay &unacknowledged() const { return onItsWay; }

Q_SIGNALS:
    // A file was sent but could not be removed from the spool. It will be sent again.
    void fileKept(const QString &path);

private:
    enum class Attempt { Finished, Postponed };

    void linkStateChanged();
    void bytesWritten();
    [[nodiscard]] bool hasRoomFor(qint64 bytes) const;

    void checkDirectPath();
    void spillStaged();

    [[nodiscard]] bool checkLock();
    void beginListing(const QByteArray &after);
    void continueListing();
    [[nodiscard]] bool continueScan();
    void takeScan();
    void waitForScan();
    void dropListing();
    void endOfListing();
    [[nodiscard]] Attempt sendFile(const QString &name);
    void sendRecord(const QString &name, const SpoolFile::Mark &mark, const QByteArray &record,
        SentFolder::Take taken);
    [[nodiscard]] bool writeToLink(const QByteArray &record);
    void resendJournal();

    void checkSoon();
    void checkWithin(std::chrono::milliseconds time);
    void checkAcknowledgements();
    [[nodiscard]] std::chrono::milliseconds nextCheck(bool hasFreed) const;
    void readFromPeer();
    void endLink(OnItsWay::Fault fault);
    [[nodiscard]] QString textOf(OnItsWay::Fault fault) const;

    QTcpSocket &link;
    SpoolKeeper &keeper;
    Counters &counters;
    const MessageSink log;
    const Times times;
    const WriteFile writeFile;
    OnItsWay onItsWay;
    SpoolLock lock;
    QTimer listingTimer;
    QTimer checkTimer; // runs while any record is unacknowledged
    OnItsWay::Fault loggedFault = OnItsWay::Fault::None;
    QDeadlineTimer faultLogPause; // a repetition of loggedFault is not logged before it expires

    // While `scanner` is joinable, only its thread may use `scan`.
    std::optional<SpoolScan> scan;
    std::thread scanner;
    // The link has ended since the scan began.
    bool isScanObsolete = false;

    SpoolListing namesLeft;
    QByteArray lastListedName;
    // The names do not fit into the current listing: another one continues behind its last name.
    bool isListingCutOff = false;
    // send() was called during a listing.
    bool listAgain = false;

    // The direct path. It is Unknown after each commit(), until the next record asks for it.
    struct Staged
    {
        QByteArray name; // file system encoding
        quint64 journalEnd;
        qint64 linkBytes;
    };
    enum class DirectPath { Unknown, Open, Closed };
    QuietSpool quiet;
    DirectPath directPath = DirectPath::Unknown;
    // What the next commit() sends: the records, and their bytes as they go over the link.
    std::vector<Staged> staged;
    QByteArray outgoing;
};
