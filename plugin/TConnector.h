#pragma once

#include "FrameReader.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QLocalServer>
#include <QLocalSocket>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <chrono>

struct BusFrame;

// One connection of the local bus. Its parent is the server (accepted) or the connector (outgoing,
// administration).
class TMyLocalSocket : public QLocalSocket, private ByteSource
{
    Q_OBJECT
public:
    explicit TMyLocalSocket(QObject *parent);

    // Bus name of the other end, UTF-8: the server to connect to, or what the peer announced.
    QByteArray name;
    // Length of the frame body that is awaited; 0 while the next thing to read is a length.
    int expectedSize = 0;
    // Whether the peer does not read: frames for it are dropped and counted then.
    bool stalled = false;
    qint64 droppedFrames = 0;
    qint64 droppedBytes = 0;

    // Sets `stalled` when more than 64 MiB wait for the peer, or more than 16 MiB of which it has
    // read nothing for the time `patience`. Clears it when 8 MiB or less are left.
    void updateStalled(std::chrono::milliseconds patience);
    // Writes to the socket's buffer without a flush.
    void enqueue(const QByteArray &frame);

    // Reads the next frame, as FrameReader::next() does; false while it is incomplete. Aborts the
    // connection when the peer announces too long a frame.
    [[nodiscard]] bool takeFrame(BusFrame &frame);

Q_SIGNALS:
    // Bytes have arrived; none has been read yet.
    void NewData(TMyLocalSocket *socket);

private Q_SLOTS:
    void processReadyRead();

private:
    qint64 bufferedBytes() const override { return bytesAvailable(); }
    qint64 readBuffered(char *to, qint64 size) override;
    qint64 readDirect(char *to, qint64 size) override;

    FrameReader frames{*this, expectedSize};
    qint64 lastUnreadBytes = 0; // at the last check or write
    QElapsedTimer sincePeerProgress;
};

// Listens under a bus name and emits every accepted connection, open. QLocalServer's own signal
// newConnection() is hidden and never emitted.
class TMyLocalServer : public QLocalServer
{
    Q_OBJECT
public:
    explicit TMyLocalServer(QObject *parent);

Q_SIGNALS:
    void newConnection(TMyLocalSocket *socket);

protected:
    void incomingConnection(quintptr socketDescriptor) override;
};

// A module's gateway to the local bus: opens its connections, repairs them, dispatches the frames
// that arrive and sends frames.
//
// Every 5 seconds one pass repairs what is down. At start-up the passes keep an order: all outgoing
// connections, then the administration connection, then listening.
//
// A pass blocks the main thread while a server lets it wait, up to a minute for each. What fails is
// logged and tried again by the next pass; only the loss of an established administration
// connection ends the event loop, with exit status 5.
class TConnector : public QObject
{
    Q_OBJECT
public:
    explicit TConnector(QObject *parent);

    // Sets the name to listen under and starts the passes. Another call starts one more timer.
    void SetServerName(QString name);
    [[nodiscard]] QString GetServerName() const { return serverName; }
    // Adds a server to connect out to, unless it is on the list already.
    void addOutServerName(QString name);

    // Each sends one data frame to the receivers that are connected. The version must not be one of
    // the kinds of BusFrame.
    void SetData(uchar version, QString targetName, QByteArray &data);
    void SetDataAll(uchar version, QByteArray &data);
    void SetOutDataAll(uchar version, QByteArray &data);

    // Reads what other modules have sent so far, then nothing more. Call it before the process
    // ends. Returns after 5 seconds at the latest.
    void readToEnd();
    // True while the frames of one read are dispatched: ReadDone() follows.
    [[nodiscard]] bool isReading() const { return readDepth > 0; }

    // Sets how long a peer may read nothing before frames for it are dropped.
    void setPatience(std::chrono::milliseconds time) { patience = time; }

    // Sends a whole frame to the administration server at once; lost if it is not connected.
    void sendToAdmin(const QByteArray &frame);

    [[nodiscard]] const QList<TMyLocalSocket *> &incoming() const { return inConnections; }
    [[nodiscard]] const QList<TMyLocalSocket *> &outgoing() const { return outConnections; }

    // Return the names of servers that are not connected. absentAdmin() is empty while the
    // administration server is connected.
    [[nodiscard]] QStringList absentServers() const;
    [[nodiscard]] QString absentAdmin() const;
    [[nodiscard]] bool isListening() const;

Q_SIGNALS:
    // The arguments are valid during the emission only. A slot must not delete the socket.
    void NewCommand(
        QByteArray &command_name, QByteArray &data, int IDConnection, TMyLocalSocket *socket);
    void NewData(uchar version, QByteArray &data, TMyLocalSocket *socket);
    void NewAction(QByteArray &action_name, QByteArray &message, QByteArray &data, int IDConnection,
        TMyLocalSocket *socket);
    void NewBusMessage(const QByteArray &iface, const QByteArray &data, const int &idConnect);
    // All frames that had arrived on a connection have been dispatched.
    void ReadDone();
    // A repair pass has ended, whatever it could repair.
    void passEnded();

public Q_SLOTS:
    void connectionInError(QLocalSocket::LocalSocketError error);
    void connectionAdminError(QLocalSocket::LocalSocketError error);
    void DisconnectInConnection();
    void newInConnection(TMyLocalSocket *connection);
    void newOutConnection();
    void connectionOutError(QLocalSocket::LocalSocketError error);
    void DisconnectOutConnection();
    void DisconnectAdminConnection();
    // The receive loop: dispatches every complete frame that is buffered on the socket.
    void SlotNewData(TMyLocalSocket *socket);

protected:
    // Does one repair pass, whichever timer the event comes from.
    void timerEvent(QTimerEvent *event) override;

private:
    void pass();
    // Returns true if all outgoing connections were up before the pass.
    [[nodiscard]] bool repairOutConnections(const QByteArray &greeting);
    void reconnect(TMyLocalSocket *socket, const QByteArray &greeting);
    void startListening();
    void dispatch(BusFrame &frame, TMyLocalSocket *socket);
    void post(TMyLocalSocket *socket, const QByteArray &frame);
    void send(TMyLocalSocket *socket, const QByteArray &frame);
    void checkStalled(TMyLocalSocket *socket);
    void logDropped(TMyLocalSocket *socket);
    [[nodiscard]] bool holdBack(const TMyLocalSocket *socket);
    void tryToReleaseSenders();

    bool firstStart = true;
    TMyLocalServer *server;
    QString serverName;
    bool watchArrow = false;
    int readDepth = 0; // more than 1 when a slot of a receive loop runs another one
    QList<TMyLocalSocket *> inConnections;
    QList<TMyLocalSocket *> outConnections;
    std::chrono::milliseconds patience{5'000};
    // The other connections are not read until the administration server has read its backlog,
    // which their frames would make longer.
    bool holdsSenders = false;
    bool isLastRead = false; // nobody is held back any more
    QTimer holdTimer;

public:
    TMyLocalSocket *adminConnection; // the plugin base sets its name
};
