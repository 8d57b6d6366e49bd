#pragma once

#include "Counters.h"
#include "Monitor.h"
#include "SpoolSender.h"
#include "TServerPlugin.h"

#include <QTcpSocket>

#include <memory>

class ScanThread;
class TMyLocalSocket;

// The transfer module: keeps every record that arrives over the bus as a file in the spool
// directory and carries the spool to the peer.
//
// Owner:   the process entry; it lives until the process ends.
// Thread:  main thread. Waiting for the spool's lock blocks it.
// Errors:  never throws. Spool failures go to the log; link events go to the administration server
//          while its input-data watch is on.
class Morvane : public TServerPlugin
{
    Q_OBJECT
public:
    Morvane();
    ~Morvane() override;

    // Reads a settings file, both groups. An empty path means the default file.
    void LoadSettings(QString path);
    // Adds the known keys to the template settings and has the file's keys checked against them.
    void checkSettingsStruct(QSettings &settings);
    // Starts the chosen transport and both timers.
    void Start() override;

    // Called once, after the event loop has ended.
    void beforeEnd();

public Q_SLOTS:
    void AdminCommand(
        QByteArray &command_name, QByteArray &data, int IDConnection, TMyLocalSocket *socket);
    void UdpDatagrams();
    void OnFileReceived(QString name);
    void SendData(QByteArray &data);
    // Reports a log line of the scan thread, UTF-8.
    void Debug(QByteArray data);
    void NewData(uchar version, QByteArray &data, TMyLocalSocket *socket);
    void tspSocketError(QAbstractSocket::SocketError error);
    void tspSocketConnected();
    void Reconnect();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    // Sends every file of the spool over the link, in order.
    void SendOldData();
    // Starts the scan thread of UDP mode, or stops it if it runs.
    void StartScanning();
    // Writes one spool file. The path is tempDir + "/" + a plain name.
    void MakeTmpFile(QString path, QByteArray data);

    void logDropped(const QString &name, qsizetype size, const QString &reason) const;
    void setUpMonitor(const QString &settingsFile, const QString &statusFile);
    void keepSpool();
    void startTransport();
    void busRead();
    void stop();
    void connectToPeer();
    void linkStateChanged(QAbstractSocket::SocketState state);
    void restartTimer(int &timerId, quint16 seconds);
    void report(const QByteArray &message);
    [[nodiscard]] QString aboutText() const;

    Counters done;
    Monitor monitor; // hears of tspSocket to its end

    quint16 localPort = 0; // UDP
    quint16 port = 0; // of the peer
    QString host; // numeric address of the peer
    quint16 timeout = 0; // milliseconds, tick of the UDP transport
    QString tempDir; // the spool directory
    bool scanning = false;
    ScanThread *scanThread = nullptr; // there while scanning
    QByteArray protocol; // "TCP" or "UDP"; anything else starts no transport
    QTcpSocket tspSocket;
    quint16 reconnectionTimeout = 0; // seconds
    quint16 liveMessageTimeout = 0; // seconds
    bool acknowledgements = false; // the peer's program acknowledges records
    quint16 acknowledgementTimeout = 0; // seconds
    bool onlyPeer = false; // UDP: take datagrams from the peer's address only
    qint64 maxReceivedBytes = 0; // UDP: of one file, inflated; 0: no limit
    bool inputDataOn = false; // the administration server's input-data watch
    int reconnectTimerId = 0;
    int liveTimerId = 0;
    std::unique_ptr<SpoolKeeper> keeper; // of tempDir
    std::unique_ptr<SpoolSender> spoolSender; // over tspSocket
    QByteArray sendingModule; // bus name, UTF-8, whence the last record came
    bool mustSend = false; // records of the read under way have become files
};
