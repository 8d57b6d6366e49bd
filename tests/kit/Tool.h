#pragma once

#include "Program.h"

#include <QDir>
#include <QRegularExpression>
#include <QTcpSocket>

// The tool in the temporary folder, which a Workplace sets; gathers what it says.
class Tool : public Program
{
public:
    explicit Tool(const QString &arguments)
    {
        setWorkingDirectory(QDir::tempPath());
        run(u"morvanectl"_s, splitCommand(arguments));
    }
    [[nodiscard]] bool says(const char *text) { return gathered(said).contains(text); }
    [[nodiscard]] bool complains(const char *text) { return gathered(complaints).contains(text); }
    [[nodiscard]] bool endsSaying(int wanted, const char *text) { return ends(wanted, said, text); }
    [[nodiscard]] bool endsComplaining(int wanted, const char *text)
    {
        return ends(wanted, complaints, text);
    }
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
