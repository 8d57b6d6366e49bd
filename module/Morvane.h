#pragma once

#include "Counters.h"
#include "Monitor.h"
#include "SpoolSender.h"
#include "TServerPlugin.h"

#include <QTcpSocket>

#include <memory>

class ScanThread;
class TMyLocalSocket;

// The transfer module: accepts records from the bus and carries them to the peer. A record waits as
// a file in the spool directory, or only in the journal if it can be sent at once.
//
// Owner:   main(), which never destroys it.
// Thread:  main thread. Waiting for the spool's lock blocks it.
// Errors:  failures of the spool go to the log. Events of the link go to the administration server
//          while its input-data watch is on.
class Morvane : public TServerPlugin
{
    Q_OBJECT
public:
    Morvane();
    ~Morvane() override;

    // Reads both groups of a settings file. An empty path means the default file.
    void LoadSettings(QString path);
    // Adds the known keys to the template settings and checks the keys of `settings` against them.
    void checkSettingsStruct(QSettings &settings);
    // Starts the reports and, as soon as the spool is ready, the chosen transport and both timers.
    void Start() override;
    // Writes one spool file as the module does for a record. `path` is the spool directory + "/" +
    // the file's name. For code that has a path; the module itself has the name.
    void MakeTmpFile(QString path, QByteArray data);

    // Reports that the module has ended. main() calls this once, after the event loop.
    void reportEnd();

public Q_SLOTS:
    void AdminCommand(
        QByteArray &command_name, QByteArray &data, int IDConnection, TMyLocalSocket *socket);
    void NewData(uchar version, QByteArray &data, TMyLocalSocket *socket);
    // Reports a log line of the scan thread, in UTF-8.
    void Debug(QByteArray data);
    void tspSocketError(QAbstractSocket::SocketError error);
    void tspSocketConnected();
    // These belong to the module's interface; nothing in this program calls them. Reconnect() calls
    // Start() again, which stops a running scan thread. The last two do nothing: ScanThread
    // receives and sends.
    void Reconnect();
    void OnFileReceived(QString name);
    void UdpDatagrams();
    void SendData(QByteArray &data);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    // Sends every file of the spool over the link, in order.
    void SendOldData();
    // Starts the scan thread of UDP mode. If it is running, stops it instead.
    void StartScanning();
    // Writes one spool file. Logs why if it cannot, and the record is dropped then.
    void writeToSpool(const QString &name, const QByteArray &content);
    void logDropped(const QString &name, qsizetype size, const QString &reason) const;
    void setUpMonitor(const QString &settingsFile, const QString &statusFile);
    void setUpSpool();
    void startTransport();
    void sendNewRecords();
    // Keeps what has not arrived: reads the bus to its end, and returns to the spool what the peer
    // has not acknowledged.
    void stop();
    void connectToPeer();
    void linkStateChanged(QAbstractSocket::SocketState state);
    void restartTimer(int &timerId, quint16 seconds);
    void report(const QByteArray &message);
    [[nodiscard]] QString aboutText() const;

    Counters counters;
    Monitor monitor; // outlives tspSocket, whose end it is told of

    // The settings of the group [Main].
    quint16 localPort = 0;
    quint16 port = 0; // of the peer
    QString host; // numeric address of the peer
    quint16 timeout = 0; // milliseconds; a tick of the UDP transport
    QString tempDir; // the spool directory
    QByteArray protocol; // "TCP" or "UDP"; anything else starts no transport
    quint16 reconnectionTimeout = 0; // seconds
    quint16 liveMessageTimeout = 0; // seconds
    bool acknowledgements = false; // whether the peer's program acknowledges records
    quint16 acknowledgementTimeout = 0; // seconds
    bool onlyPeer = false; // whether UDP mode ignores datagrams of other addresses
    qint64 maxReceivedBytes = 0; // of one inflated file in UDP mode; 0 for no limit

    bool scanning = false;
    ScanThread *scanThread = nullptr; // set while `scanning`
    QTcpSocket tspSocket;
    bool inputDataOn = false; // the administration server's input-data watch
    int reconnectTimerId = 0;
    int liveTimerId = 0;
    std::unique_ptr<SpoolKeeper> keeper;
    std::unique_ptr<SpoolSender> spoolSender;
    // The bus name of the module that sent the last record, UTF-8.
    QByteArray sendingModule;
    // The current read of the bus has made files, which are sent after it.
    bool hasNewFiles = false;
};
