#include "Morvane.h"

#include "DataRecord.h"
#include "FileName.h"
#include "LoggingLevel.h"
#include "MainSettings.h"
#include "ModuleVersion.h"
#include "RecordKinds.h"
#include "Settings.h"
#include "TConnector.h"
#include "TLog.h"
#include "Version.h"
#include "test_object.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QHostAddress>
#include <QNetworkProxy>
#include <QSettings>
#include <QThread>
#include <QTimer>
#include <QTimerEvent>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

Q_LOGGING_CATEGORY(moduleCategory, "morvane.module", defaultLoggingLevel())

constexpr char recordField[] = "MORVANE_RECORD"; // a field of the system journal
// The least time without acknowledgement after which the link counts as dead.
constexpr std::chrono::milliseconds leastDeadTime = 30s;
// Seconds. An interval of 0 would keep a core busy, and abort each attempt to connect at once.
constexpr quint16 shortestTimer = 1;

void logWarning(const QString &text)
{
    pLog->Message(text, TLog::Priority::Warning);
}

} // namespace

Morvane::Morvane()
    : monitor(*connector)
{
    connect(connector, &TConnector::NewCommand, this, &Morvane::AdminCommand);
    connect(connector, &TConnector::NewData, this, &Morvane::NewData);
    connect(&tspSocket, &QAbstractSocket::errorOccurred, this, &Morvane::tspSocketError);
    connect(&tspSocket, &QAbstractSocket::connected, this, &Morvane::tspSocketConnected);
    connect(&tspSocket, &QAbstractSocket::stateChanged, this, &Morvane::linkStateChanged);
    connect(connector, &TConnector::ReadDone, this, &Morvane::sendNewRecords);
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, &Morvane::stop);
    // The system's proxy settings must not redirect the link.
    tspSocket.setProxy(QNetworkProxy::NoProxy);
}

Morvane::~Morvane() = default;

// --- settings and start ---

void Morvane::LoadSettings(QString path)
{
    Q_ASSERT(thread() == QThread::currentThread());
    if (path.isEmpty())
        path = getIniNameDefault(false);
    TServerPlugin::LoadSettings(path);

    QSettings settings(path, QSettings::IniFormat);
    checkSettingsStruct(settings);
    settings.beginGroup(MainSettings::group);
    const auto text = [&](const SettingKey &key) { return settingText(settings, key); };
    const auto number = [&](const SettingKey &key) { return MainSettings::number(text(key)); };
    tempDir = text(MainSettings::tempDir);
    host = text(MainSettings::host);
    port = number(MainSettings::port);
    localPort = number(MainSettings::localPort);
    timeout = number(MainSettings::timeout);
    protocol = text(MainSettings::protocol).toLatin1();
    reconnectionTimeout = number(MainSettings::reconnectionTimeout);
    liveMessageTimeout = number(MainSettings::liveMessageTimeout);
    acknowledgements = number(MainSettings::acknowledgements) != 0;
    acknowledgementTimeout = number(MainSettings::acknowledgementTimeout);
    onlyPeer = number(MainSettings::onlyPeer) != 0;
    maxReceivedBytes = MainSettings::byteLimit(text(MainSettings::maxReceivedBytes));
    const QString statusFile = text(MainSettings::statusFile);
    settings.endGroup();

    setUpMonitor(path, statusFile);
    setUpSpool();
}

void Morvane::setUpSpool()
{
    spoolSender.reset();
    keeper = std::make_unique<SpoolKeeper>(SpoolDirectory(tempDir), logWarning);
    connect(keeper.get(), &SpoolKeeper::ready, this, &Morvane::startTransport);
    const SpoolSender::Times times = {std::max<std::chrono::milliseconds>(leastDeadTime,
                                          2 * std::chrono::seconds(liveMessageTimeout)),
        acknowledgements ? std::optional<std::chrono::milliseconds>(
            std::chrono::seconds(std::max(acknowledgementTimeout, shortestTimer)))
                         : std::nullopt};
    spoolSender = std::make_unique<SpoolSender>(tspSocket, *keeper, counters, logWarning, times,
        [this](const QString &name, const QByteArray &content) { writeToSpool(name, content); });
    connect(spoolSender.get(), &SpoolSender::fileKept, this,
        [this](const QString &path) { report(tr("Can not delete file %1").arg(path).toUtf8()); });
}

void Morvane::setUpMonitor(const QString &settingsFile, const QString &statusFile)
{
    const QString busName = connector->GetServerName();
    Status &status = monitor.status;
    status.module = busName.isEmpty() ? QFileInfo(settingsFile).completeBaseName() : busName;
    status.version = moduleVersion();
    status.protocol = QString::fromLatin1(protocol);
    status.peer = u"%1 port %2"_s.arg(host).arg(port);
    monitor.setStatusFile(statusFile);
    TLog::SetCommonFields({{"MORVANE_INSTANCE", status.module}, {"MORVANE_PEER", status.peer}});
}

void Morvane::checkSettingsStruct(QSettings &settings)
{
    QSettings *known = prepareTemplateSettings();
    known->beginGroup(MainSettings::group);
    for (const SettingKey &key : MainSettings::keys)
        known->setValue(key.name, key.defaultText);
    known->endGroup();
    rebuildSettingsByTemplate(settings, *known);
}

void Morvane::Start()
{
    Q_ASSERT(thread() == QThread::currentThread());
    Q_ASSERT(keeper); // made by LoadSettings()
    monitor.start(keeper->directory(), [this](Status &status) {
        status.counters = counters;
        status.unacknowledged = spoolSender->unacknowledged().waiting();
        if (acknowledgements)
            status.acknowledgedNumber = spoolSender->unacknowledged().storedRecords();
        if (protocol == "UDP")
            status.udp = scanThread ? scanThread->counters() : TransferCounters();
    });
    if (keeper->isReady())
        startTransport();
    else
        keeper->start();
}

void Morvane::startTransport()
{
    if (protocol == "UDP")
        StartScanning();
    else if (protocol == "TCP")
        connectToPeer();
    restartTimer(reconnectTimerId, reconnectionTimeout);
    restartTimer(liveTimerId, liveMessageTimeout);
}

void Morvane::reportEnd()
{
    monitor.stop();
}

// Connected to aboutToQuit, so it runs whatever ends the event loop.
void Morvane::stop()
{
    if (!keeper)
        return;
    connector->readToEnd();
    spoolSender->stop();
    keeper->stop();
}

void Morvane::Reconnect()
{
    Start();
}

void Morvane::restartTimer(int &timerId, quint16 seconds)
{
    if (timerId != 0)
        killTimer(timerId);
    timerId = startTimer(std::chrono::seconds(std::max(seconds, shortestTimer)));
}

void Morvane::timerEvent(QTimerEvent *event)
{
    if (event->timerId() == reconnectTimerId)
        keeper->flushFilesOfOthers();
    if (protocol != "TCP")
        return;
    const bool connected = tspSocket.state() == QAbstractSocket::ConnectedState;
    if (event->timerId() == reconnectTimerId && !connected) {
        tspSocket.abort();
        connectToPeer();
    } else if (event->timerId() == liveTimerId && connected) {
        spoolSender->sendKeepAlive();
    }
}

// --- the administration server ---

void Morvane::AdminCommand(
    QByteArray &command_name, QByteArray &, int IDConnection, TMyLocalSocket *)
{
    if (command_name == "Input_Data_On") {
        inputDataOn = true;
    } else if (command_name == "Input_Data_Off") {
        inputDataOn = false;
    } else if (command_name == "About") {
        QByteArray action("About");
        QByteArray message = aboutText().toUtf8();
        QByteArray none("");
        SetAction(action, message, none, IDConnection);
    } else if (command_name == "QuitSignal") {
        // If the server disconnects right after its command, that must not change the exit status.
        connector->adminConnection->disconnect(connector);
        QCoreApplication::exit(0);
    }
}

QString Morvane::aboutText() const
{
    return u"----\n"
           "Информация о сборке.\n"
           "Версия модуля: %1\n"
           "Версия Harnix: %6\n"
           "\n"
           "----\n"
           "Информация о работе модуля.\n"
           "Локальный UDP-порт: %3\n"
           "Удаленный UDP-порт: %4\n"
           "Удаленный хост: %5\n"
           "Таймаут передачи: %7\n"_s.arg(moduleVersion())
               .arg(localPort)
               .arg(port)
               .arg(host)
               .arg(getHarnixVersion())
               .arg(timeout);
}

void Morvane::report(const QByteArray &message)
{
    if (!inputDataOn)
        return;
    QByteArray action("InData");
    QByteArray text = message;
    QByteArray none("");
    SetAction(action, text, none, -1);
}

void Morvane::Debug(QByteArray data)
{
    Q_ASSERT(thread() == QThread::currentThread());
    report(data);
}

// --- records in ---

void Morvane::NewData(uchar, QByteArray &data, TMyLocalSocket *socket)
{
    Q_ASSERT(thread() == QThread::currentThread());
    const DataRecord record = DataRecord::read(data);
    const qint64 size = record.kind.size() + record.payload.size();
    if (!isAcceptedKind(record.kind))
        return counters.unknownKind.add(size);
    if (inputDataOn)
        report((tr("New data") + u": "_s + record.fileName).toUtf8());
    if (protocol != "TCP" && protocol != "UDP")
        return counters.noTransport.add(size);
    sendingModule = socket ? socket->name : QByteArray();
    if (protocol != "TCP" || !spoolSender->sendAtOnce(record)) {
        spoolSender->commit(); // the records before this one go first
        writeToSpool(record.fileName, record.kind + record.payload);
        hasNewFiles = true;
    }
    if (!connector->isReading())
        sendNewRecords();
}

// Sends the records of one read of the bus together.
void Morvane::sendNewRecords()
{
    spoolSender->commit();
    if (std::exchange(hasNewFiles, false) && protocol == "TCP")
        SendOldData();
}

void Morvane::MakeTmpFile(QString path, QByteArray data)
{
    const QString folder = tempDir + u'/';
    Q_ASSERT(path.startsWith(folder));
    writeToSpool(path.sliced(folder.size()), data);
}

void Morvane::writeToSpool(const QString &name, const QByteArray &content)
{
    Q_ASSERT(thread() == QThread::currentThread());
    const SpoolDirectory::WriteResult result = keeper->write(name, content);
    const QString reason = qt_error_string();
    switch (result) {
    case SpoolDirectory::WriteResult::Written:
        return counters.accepted.add(content.size());
    case SpoolDirectory::WriteResult::NoLock:
        counters.noLock.add(content.size());
        pLog->Message(u"Can not open lock-file"_s, TLog::Priority::Error, {{recordField, name}});
        return logDropped(name, content.size(), reason);
    case SpoolDirectory::WriteResult::NoFile:
        counters.noFile.add(content.size());
        pLog->Message(
            u"Can not create temporary file"_s, TLog::Priority::Error, {{recordField, name}});
        return logDropped(
            name, content.size(), isPlainName(name) ? reason : tr("the name cannot be a file's"));
    }
}

void Morvane::logDropped(const QString &name, qsizetype size, const QString &reason) const
{
    pLog->Message(tr("Dropped the record \"%1\" of %2 bytes from %3: %4")
                      .arg(name, QString::number(size),
                          sendingModule.isEmpty() ? tr("a nameless module")
                                                  : QString::fromUtf8(sendingModule),
                          reason),
        TLog::Priority::Error, {{recordField, name}});
}

// --- the TCP link ---

void Morvane::connectToPeer()
{
    // Calling connectToHost() on a busy socket would only raise an error.
    if (tspSocket.state() == QAbstractSocket::UnconnectedState)
        tspSocket.connectToHost(QHostAddress(host), port, QIODevice::ReadWrite);
}

void Morvane::tspSocketConnected()
{
    // Connecting to a port of this host that nobody listens on can connect the socket to itself.
    if (tspSocket.localPort() == tspSocket.peerPort()
        && tspSocket.localAddress() == tspSocket.peerAddress())
        return tspSocket.abort();
    if (!spoolSender->linkUp())
        return tspSocket.abort(); // no descriptor is free; the next attempt may find one
    monitor.linkUp();
    report(tr("Connection established.").toUtf8());
    SendOldData();
}

void Morvane::tspSocketError(QAbstractSocket::SocketError error)
{
    const QString text = tr("Socket error: %1").arg(error);
    monitor.noteError(text);
    report(text.toUtf8());
}

void Morvane::linkStateChanged(QAbstractSocket::SocketState state)
{
    if (state == QAbstractSocket::UnconnectedState)
        monitor.linkDown();
}

void Morvane::SendOldData()
{
    Q_ASSERT(thread() == QThread::currentThread());
    spoolSender->send();
}

// --- UDP mode ---

void Morvane::StartScanning()
{
    Q_ASSERT(thread() == QThread::currentThread());
    Q_ASSERT(scanning == (scanThread != nullptr));
    if (!scanning) {
        scanThread = new ScanThread(this, localPort, port, host, timeout, tempDir);
        scanThread->setOnlyPeer(onlyPeer);
        scanThread->setMaxReceivedBytes(maxReceivedBytes);
        connect(scanThread, &ScanThread::LogMessage, this, &Morvane::Debug);
        qCDebug(moduleCategory, "Start Scanning");
        scanThread->start();
        scanning = true;
        return;
    }
    qCDebug(moduleCategory, "Stop Scanning");
    scanThread->stop();
    scanning = false;
    disconnect(scanThread, &ScanThread::LogMessage, this, &Morvane::Debug);
    delete std::exchange(scanThread, nullptr);
}

void Morvane::OnFileReceived(QString name)
{
    qCDebug(moduleCategory) << "File received" << name;
}

void Morvane::UdpDatagrams()
{
}

void Morvane::SendData(QByteArray &)
{
}
