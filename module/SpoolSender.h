#pragma once

#include "SpoolDirectory.h"
#include "Unacknowledged.h"

#include <QObject>

#include <chrono>

class QTcpSocket;

// Carries the spool over the TCP link: one record for each file, in the order of the listing.
//
// At most 1 MiB waits in the socket's buffer; the rest of a listing goes on when it drains.
//
// Owner:   Morvane, which owns the socket too and makes its connections.
// Thread:  main thread. Waiting for the spool's lock blocks it, in steps of a second.
// Errors:  never throws. A file that cannot be sent now stays in the spool for the next time.
class SpoolSender : public QObject
{
    Q_OBJECT
public:
    // Long waits for the lock are said to the log.
    SpoolSender(QTcpSocket &link, Say log);

    void setSpool(const QString &directory);
    // Unacknowledged bytes that old mean that the link is dead.
    void setDeadAfter(std::chrono::milliseconds time) { deadAfter = time; }

    // Gives back what an earlier process left between spool and peer. Before anything is sent.
    void recover() { unacknowledged.recover(); }
    // To be called when the link has come up, before anything else is done with it. False if it
    // cannot be watched, and must not be used.
    [[nodiscard]] bool linkUp();
    // Sends the whole spool, or goes on with it. Reads no file while the socket takes none.
    void send();
    void sendKeepAlive();

Q_SIGNALS:
    // A sent file is still in the spool, and will be sent again.
    void fileKept(const QString &path);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    void linkStateChanged();
    void bytesWritten();
    [[nodiscard]] bool takesRecords() const;
    [[nodiscard]] bool waitForLock();
    [[nodiscard]] bool hasRoomFor(qint64 bytes) const;
    void sendListed();
    [[nodiscard]] bool sendFile(const QString &name);
    [[nodiscard]] qint64 write(const QByteArray &record);
    void watchAcknowledgements();

    QTcpSocket &link;
    const Say say;
    SpoolDirectory spool;
    Unacknowledged unacknowledged;
    std::chrono::milliseconds deadAfter{0};
    SpoolListing listed; // what remains of the current listing
    bool listAgain = false; // somebody has asked while a listing was under way
    qint64 takenSinceLook = 0; // bytes
    int lookTimerId = 0; // runs while anything is unacknowledged
};
