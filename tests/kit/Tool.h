#pragma once

#include "Waiting.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>

#include <csignal>

// A process that does not outlive its test.
struct Program : QProcess
{
    ~Program() override
    {
        kill();
        waitForFinished();
    }
    // -1 while it runs, or if it did not end by itself.
    [[nodiscard]] int status() const
    {
        return state() == NotRunning && exitStatus() == NormalExit ? exitCode() : -1;
    }
};

// The tool in the temporary folder, which a Workplace sets; gathers what it says.
class Tool : public Program
{
public:
    explicit Tool(const QString &arguments)
    {
        setWorkingDirectory(QDir::tempPath());
        start(QCoreApplication::applicationDirPath() + u"/morvanectl"_s, splitCommand(arguments));
        if (!waitForStarted())
            qFatal("morvanectl does not start");
    }
    [[nodiscard]] bool says(const char *text) { return gathered(said).contains(text); }
    [[nodiscard]] bool complains(const char *text) { return gathered(complaints).contains(text); }
    [[nodiscard]] bool endsSaying(int wanted, const char *text) { return ends(wanted, said, text); }
    [[nodiscard]] bool endsComplaining(int wanted, const char *text)
    {
        return ends(wanted, complaints, text);
    }
    void raise(int signal) const { ::kill(pid_t(processId()), signal); }
    // Of a receiver, as it says in its first line.
    [[nodiscard]] quint16 port()
    {
        if (!QTest::qWaitFor([this] { return says("\n"); }, longestWait))
            qFatal("nobody listens");
        const QRegularExpression line(u"Listening on 127.0.0.1 port (\\d+)"_s);
        return line.match(QString::fromUtf8(said)).captured(1).toUShort();
    }
    QByteArray said, complaints;

private:
    const QByteArray &gathered(const QByteArray &which)
    {
        said += readAllStandardOutput();
        complaints += readAllStandardError();
        return which;
    }
    bool ends(int wanted, const QByteArray &which, const char *text)
    {
        const auto isMet = [&] { return gathered(which).contains(text) && status() >= 0; };
        if (QTest::qWaitFor(isMet, longestWait) && status() == wanted)
            return true;
        qWarning("status %d, said and complained:\n%s%s", status(), said.data(), complaints.data());
        return false;
    }
};

// A module's link to a receiver.
struct PeerLink : QTcpSocket
{
    explicit PeerLink(Tool &receiver) { connectToHost(QHostAddress::LocalHost, receiver.port()); }
};

// A receiver on a port of its own, with a module's link to it.
struct Receiver : Tool
{
    using Tool::Tool;
    PeerLink sender{*this};
};
