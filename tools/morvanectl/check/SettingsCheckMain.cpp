// The part of SettingsCheck for the spool and the two transports.
#include "NameGuess.h"
#include "Packet.h"
#include "PeerAddress.h"
#include "SettingsCheck.h"
#include "UdpPace.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>

#include <chrono>
#include <linux/capability.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr int usualFirstFreePort = 1'024;
constexpr qint64 oneMegabyte = 1'000'000;
constexpr std::chrono::milliseconds tooLongForLargestFile = 24h;

QByteArray firstLineOf(const QString &path, const QByteArray &beginning)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.startsWith(beginning))
            return line.sliced(beginning.size()).trimmed();
    }
    return {};
}

// Returns the lowest port that needs no privilege.
int firstFreePort()
{
    const QByteArray text = firstLineOf(u"/proc/sys/net/ipv4/ip_unprivileged_port_start"_s, "");
    return text.isEmpty() ? usualFirstFreePort : text.toInt();
}

bool mayBindAnyPort()
{
    const quint64 rights = firstLineOf(u"/proc/self/status"_s, "CapEff:").toULongLong(nullptr, 16);
    return (rights >> CAP_NET_BIND_SERVICE & 1) != 0;
}

} // namespace

void SettingsCheck::checkMain()
{
    checkNumber(MainSettings::port);
    checkNumber(MainSettings::localPort);
    checkNumber(MainSettings::timeout);
    checkNumber(MainSettings::reconnectionTimeout);
    checkNumber(MainSettings::liveMessageTimeout);
    checkNumber(MainSettings::acknowledgements);
    checkNumber(MainSettings::acknowledgementTimeout);
    checkSpool();
    const QString host = settings.main(MainSettings::host);
    if (QHostAddress(host).isNull())
        addMain(Severity::Error, MainSettings::host,
            u"\"Host\" = \"%1\" is not a numeric address, and names are not looked up"_s.arg(host));
    if (settings.mainNumber(MainSettings::port) == 0)
        addMain(Severity::Error, MainSettings::port, u"no peer can be reached on port 0"_s);
    if (settings.isUdp())
        return checkUdp();
    if (settings.isTcp())
        return checkTcp();
    const QString protocol = settings.main(MainSettings::protocol);
    addMain(Severity::Error, MainSettings::protocol,
        u"\"Protocol\" = \"%1\" is neither \"TCP\" nor \"UDP\": nothing is sent, and every record "
        "is dropped%2"_s.arg(protocol, guessHint(protocol, {u"TCP"_s, u"UDP"_s})));
}

void SettingsCheck::checkNumber(const Key &key)
{
    const QString value = settings.main(key);
    bool isNumber = false;
    const int number = value.toInt(&isNumber);
    if (!isNumber || number != settings.mainNumber(key))
        addMain(Severity::Error, key,
            u"\"%1\" = \"%2\" is not a number from 0 to 65535: it becomes %3"_s.arg(
                key.name, value, QString::number(settings.mainNumber(key))));
}

void SettingsCheck::checkSpool()
{
    const Key &key = MainSettings::tempDir;
    const QString name = settings.main(key);
    if (name.isEmpty())
        return addMain(Severity::Error, key, u"\"TempDir\" is empty: that is the root folder"_s);
    const QString path = spoolPath();
    if (!isSpoolPathKnown())
        addMain(Severity::Warning, key,
            u"\"TempDir\" = \"%1\" is relative to the working directory of the "
            "module, assumed to be %2 here (see --directory)"_s.arg(name, directory));
    const QFileInfo folder(path);
    if (!folder.exists())
        addMain(Severity::Error, key,
            u"the spool folder %1 does not exist, and the module does not create it: "
            "every record is dropped"_s.arg(path));
    else if (!folder.isDir())
        addMain(Severity::Error, key, u"%1 is not a folder: every record is dropped"_s.arg(path));
    else if (!folder.isWritable() || !folder.isReadable() || !folder.isExecutable())
        addMain(Severity::Error, key,
            u"this user cannot read and write the spool folder %1"_s.arg(path));
    else if ((isDirectoryKnown || QDir::isRelativePath(name))
        && folder.canonicalFilePath() == QFileInfo(directory).canonicalFilePath())
        addMain(Severity::Error, key,
            u"the spool folder is the working directory: nothing is sent or received, because "
            "received files would be sent back"_s);
}

void SettingsCheck::checkTcp()
{
    for (const Key &key : {MainSettings::reconnectionTimeout, MainSettings::liveMessageTimeout,
             MainSettings::acknowledgementTimeout}) {
        if (settings.mainNumber(key) == 0)
            addMain(Severity::Warning, key, u"\"%1\" of 0 counts as 1 second"_s.arg(key.name));
    }
}

void SettingsCheck::checkUdp()
{
    if (settings.mainNumber(MainSettings::acknowledgements) != 0)
        addMain(Severity::Warning, MainSettings::acknowledgements,
            u"\"Acknowledgements\" has no effect over UDP"_s);
    const QHostAddress host(settings.main(MainSettings::host));
    const quint16 localPort = settings.mainNumber(MainSettings::localPort);
    if (!host.isNull() && PeerAddress::isUnspecified(host))
        addMain(Severity::Error, MainSettings::host,
            u"\"Host\" = \"%1\" is not the address of a peer: nothing is sent"_s.arg(
                host.toString()));
    if (localPort == 0)
        addMain(Severity::Error, MainSettings::localPort,
            u"\"LocalPort\" of 0 takes another port at each start, which no peer knows"_s);
    else if (localPort == settings.mainNumber(MainSettings::port) && PeerAddress::isThisHost(host))
        addMain(Severity::Error, MainSettings::localPort,
            u"\"LocalPort\" and \"Port\" are both %1 on this machine: the module would send to "
            "itself, so nothing is sent"_s.arg(localPort));
    checkNumber(MainSettings::onlyPeer);
    const QString limit = settings.main(MainSettings::maxReceivedBytes);
    bool isNumber = false;
    if (limit.toLongLong(&isNumber) < 0 || !isNumber)
        addMain(Severity::Error, MainSettings::maxReceivedBytes,
            u"\"MaxReceivedBytes\" = \"%1\" is not a number of bytes: there is no limit"_s.arg(
                limit));
    checkPort(MainSettings::localPort);
    checkPace();
}

void SettingsCheck::checkPort(const Key &key)
{
    const quint16 port = settings.mainNumber(key);
    if (port == 0 || port >= firstFreePort() || mayBindAnyPort())
        return;
    addMain(Severity::Error, key,
        u"\"%1\" = %2 is below %3, and this user may not bind such a port"_s.arg(
            key.name, QString::number(port), QString::number(firstFreePort())));
}

void SettingsCheck::checkPace()
{
    const quint16 timeout = settings.mainNumber(MainSettings::timeout);
    const auto longest = UdpPace::duration(Packet::maxNumber, timeout);
    if (!longest || *longest < tooLongForLargestFile)
        return;
    addMain(Severity::Warning, MainSettings::timeout,
        u"\"Timeout\" = %1 makes a transfer very slow: 1 MB, compressed, takes %2 and the largest "
        "file %3"_s.arg(QString::number(timeout),
            UdpPace::text(*UdpPace::duration(UdpPace::packets(oneMegabyte), timeout)),
            UdpPace::text(*longest)));
}
