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

// One connection of the local bus.
//
// Owner:   the server (accepted) or the connector (outgoing, administration).
// Thread:  main thread.
class TMyLocalSocket : public QLocalSocket, private ByteSource
{
    Q_OBJECT
public:
    explicit TMyLocalSocket(QObject *parent);

    // Bus name of the other end, UTF-8: the server to connect to, or what the peer announced.
    QByteArray name;
    // Length of the frame body that is awaited; 0 while the next thing to read is a length.
    int expectedSize = 0;
    // The peer does not read, and frames for it are being dropped.
    bool stalled = false;
    // Those frames so far.
    qint64 droppedFrames = 0;
    qint64 droppedBytes = 0;

    // Judges the peer by what it takes: it is stalled after it has taken no byte for so long, while
    // more than 16 MiB wait for it, or when more than 64 MiB wait, until 8 MiB are left.
    void judge(std::chrono::milliseconds patience);
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
    qint64 lastUnread = 0; // bytes that waited for the peer when it was looked at
    QElapsedTimer sinceProgress; // of the peer
};

// Listens under a bus name and hands out every accepted connection, open, by signal.
//
// Owner:   the connector.
// Thread:  main thread.
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

// A module's gateway to the local bus: brings its connections up, keeps them up, cuts what arrives
// into frames and writes frames.
//
// Every 5 seconds one pass repairs what is down. At start-up the passes keep an order: all outgoing
// connections, then the administration connection, then listening.
//
// Owner:   the plugin base.
// Thread:  main thread. A pass blocks it for as long as a server makes it wait, 30 seconds each.
// Errors:  never throws. They are logged and the next pass tries again; only the loss of an
//          established administration connection ends the event loop, with exit status 5.
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

    // Each sends one data frame; receivers that are not connected miss it. The version must not
    // be one of the kinds of BusFrame.
    void SetData(uchar version, QString targetName, QByteArray &data);
    void SetDataAll(uchar version, QByteArray &data);
    void SetOutDataAll(uchar version, QByteArray &data);

    // Before the process ends: takes all that other modules have sent so far, and no more. Returns
    // after some seconds at the latest.
    void readToEnd();
    // Whether frames of one read are being dispatched: ReadDone() follows.
    [[nodiscard]] bool isReading() const { return readDepth > 0; }

    // How long a peer may read nothing before frames for it are dropped.
    void setPatience(std::chrono::milliseconds time) { patience = time; }

    // Sends a whole frame to the administration server at once; lost if it is not connected.
    void sendToAdmin(const QByteArray &frame);

    [[nodiscard]] const QList<TMyLocalSocket *> &incoming() const { return inConnections; }
    [[nodiscard]] const QList<TMyLocalSocket *> &outgoing() const { return outConnections; }

    // Servers to connect out to that are not connected, and the administration server if it is not.
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
    // All frames that have arrived on a connection were dispatched.
    void ReadDone();
    void NewBusMessage(const QByteArray &iface, const QByteArray &data, const int &idConnect);
    // A repair pass has done what it could.
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
    // One repair pass, whatever timer it comes from.
    void timerEvent(QTimerEvent *event) override;

private:
    void pass();
    // True when all outgoing connections were up before the pass.
    [[nodiscard]] bool repairOutConnections(const QByteArray &greeting);
    void reconnect(TMyLocalSocket *socket, const QByteArray &greeting);
    void startListening();
    void dispatch(BusFrame &frame, TMyLocalSocket *socket);
    void post(TMyLocalSocket *socket, const QByteArray &frame);
    void send(TMyLocalSocket *socket, const QByteArray &frame);
    void judge(TMyLocalSocket *socket);
    void logDropped(TMyLocalSocket *socket);
    [[nodiscard]] bool mustWait(const TMyLocalSocket *socket);
    void releaseSenders();

    bool firstStart = true;
    TMyLocalServer *server;
    QString serverName;
    bool watchArrow = false;
    int readDepth = 0; // a slot may have another connection read
    QList<TMyLocalSocket *> inConnections;
    QList<TMyLocalSocket *> outConnections;
    std::chrono::milliseconds patience{5'000};
    // Frames of the other connections wait until the administration server has read its backlog,
    // which they would lengthen.
    bool holdsSenders = false;
    QTimer holdTimer;

public:
    TMyLocalSocket *adminConnection; // the plugin base sets its name
};
