#pragma once

#include "OnItsWay.h"
#include "QuietSpool.h"
#include "Record.h"
#include "SpoolScan.h"

#include <QDeadlineTimer>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <functional>
#include <thread>

class QTcpSocket;
struct Counters;

// Carries records over the TCP link, one for each file of the spool, in the order of the listing.
//
// A record that arrives while nothing waits takes a shorter road: it is written to the journal and
// sent, and never becomes a file unless the link ends before it is acknowledged.
//
// At most 1 MiB waits in the socket's buffer; the rest of a listing goes on when it drains. If the
// peer's program acknowledges, a peer that says what cannot be true, or nothing for too long, loses
// the link.
//
// Owner:   Morvane, which owns the socket too and makes its connections.
// Thread:  main thread. A listing is made and sent in pieces of some milliseconds.
// Errors:  never throws. A file that cannot be sent now stays in the spool for the next time.
class SpoolSender : public QObject
{
    Q_OBJECT
public:
    using WriteFile = std::function<void(const QString &name, const QByteArray &content)>;
    struct Times
    {
        std::chrono::milliseconds deadAfter; // unacknowledged bytes that old mean a dead link
        // The peer's program has to acknowledge, within that time; otherwise its kernel does.
        std::optional<std::chrono::milliseconds> acknowledgement;
    };

    // writeFile is called for a record whose shorter road has failed, in the order of arrival.
    SpoolSender(QTcpSocket &link, SpoolKeeper &keeper, Counters &counters, MessageSink log,
        const Times &times, WriteFile writeFile);
    ~SpoolSender() override;

    // To be called when the link has come up, before anything else is done with it. False if it
    // cannot be watched, and must not be used.
    [[nodiscard]] bool linkUp();
    // Sends the whole spool, or goes on with it. Does nothing while the link is down.
    void send();
    // Sends a record without a file if nothing waits and all is well. What was taken leaves with
    // the next commit().
    [[nodiscard]] bool sendAtOnce(const DataRecord &record);
    void commit();
    void sendKeepAlive();
    // Before the process ends: waits a moment for acknowledgements, then gives the rest back.
    void stop();
    [[nodiscard]] const OnItsWay &unacknowledged() const { return onItsWay; }

Q_SIGNALS:
    // A sent file is still in the spool, and will be sent again.
    void fileKept(const QString &path);

private:
    enum class Step { Done, MustWait };

    void linkStateChanged();
    void bytesWritten();
    [[nodiscard]] bool hasRoomFor(qint64 bytes) const;

    [[nodiscard]] bool isRoadOpen();
    void spillStaged();

    [[nodiscard]] bool isSpoolFree();
    void beginListing(const QByteArray &after);
    void goOn();
    [[nodiscard]] bool goOnScanning();
    Q_INVOKABLE void scanned();
    void waitForScan();
    void dropListing();
    void endOfListing();
    [[nodiscard]] Step sendFile(const QString &name);
    [[nodiscard]] bool write(const QByteArray &record);
    void resendJournal();

    void lookSoon();
    void lookWithin(std::chrono::milliseconds time);
    void lookNow();
    [[nodiscard]] std::chrono::milliseconds nextLook(bool hasFreed) const;
    void readFromPeer();
    void endLink(OnItsWay::Fault fault);
    [[nodiscard]] QString textOf(OnItsWay::Fault fault) const;

    QTcpSocket &link;
    SpoolKeeper &keeper;
    Counters &done;
    const MessageSink report;
    const Times times;
    const WriteFile writeFile;
    OnItsWay onItsWay;
    SpoolLock lock;
    QTimer work; // goes on with a listing
    QTimer lookTimer; // runs while anything is unacknowledged
    OnItsWay::Fault saidFault = OnItsWay::Fault::None;
    QDeadlineTimer saidRecently; // the same fault need not be said again

    std::optional<SpoolScan> scan; // under way
    std::thread scanner; // has the scan while it is joinable
    bool isScanVain = false; // the link has ended since it began
    SpoolListing listed; // what remains of the current listing
    QByteArray lastListed; // the last name taken from it
    bool isCutOff = false; // more names follow the current listing
    bool hasFailedForeign = false; // see SpoolDirectory::setForeignNamesAside()
    bool listAgain = false; // somebody has asked while a listing was under way

    // Records that leave with the next commit().
    struct Staged
    {
        QByteArray name; // file system encoding
        quint64 journalEnd;
        qint64 bytes; // on the link
    };
    enum class Road { Unknown, Open, Closed };
    QuietSpool quiet;
    Road road = Road::Unknown; // until the next commit()
    std::vector<Staged> staged;
    QByteArray outgoing; // link records
};
