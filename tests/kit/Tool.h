#pragma once

#include "Waiting.h"

#include <QCoreApplication>
#include <QDir>
#include <QHostAddress>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>

#include <csignal>

// The tool as a process in the temporary folder, which a Workplace sets; gathers what it says.
class Tool : public QProcess
{
public:
    explicit Tool(const QString &arguments)
    {
        setWorkingDirectory(QDir::tempPath());
        start(QCoreApplication::applicationDirPath() + QStringLiteral("/morvanectl"),
            splitCommand(arguments));
        if (!waitForStarted())
            qFatal("morvanectl does not start");
    }
    ~Tool() override
    {
        kill();
        waitForFinished();
    }
    [[nodiscard]] bool says(const char *text)
    {
        said += readAllStandardOutput();
        return said.contains(text);
    }
    [[nodiscard]] bool complains(const char *text)
    {
        complaints += readAllStandardError();
        return complaints.contains(text);
    }
    [[nodiscard]] bool endsSaying(int wanted, const char *text)
    {
        return QTest::qWaitFor([&] { return says(text) && status() >= 0; }, longestWait)
            && status() == wanted;
    }
    [[nodiscard]] bool endsComplaining(int wanted, const char *text)
    {
        return QTest::qWaitFor([&] { return complains(text) && status() >= 0; }, longestWait)
            && status() == wanted;
    }
    void raise(int signal) const { ::kill(pid_t(processId()), signal); }
    // -1 while it runs, or if it did not end by itself.
    [[nodiscard]] int status() const
    {
        return state() == NotRunning && exitStatus() == NormalExit ? exitCode() : -1;
    }
    QByteArray said, complaints;
};

// A module's link to a receiver.
class PeerLink : public QTcpSocket
{
public:
    explicit PeerLink(Tool &receiver) { connectToHost(QHostAddress::LocalHost, portOf(receiver)); }
    static quint16 portOf(Tool &receiver)
    {
        static const QRegularExpression line(u"Listening on 127.0.0.1 port (\\d+)"_s);
        if (!QTest::qWaitFor([&] { return receiver.says("\n"); }, longestWait))
            qFatal("nobody listens");
        return line.match(QString::fromUtf8(receiver.said)).captured(1).toUShort();
    }
};
