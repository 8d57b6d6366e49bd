#pragma once

#include "Waiting.h"

#include <QCoreApplication>
#include <QProcess>

#include <csignal>

// A process that does not outlive its test.
struct Program : QProcess
{
    ~Program() override
    {
        kill();
        waitForFinished();
    }
    // Starts one of the tested programs.
    void run(const QString &name, const QStringList &arguments)
    {
        start(QCoreApplication::applicationDirPath() + u'/' + name, arguments);
        if (!waitForStarted())
            qFatal("%s does not start", qPrintable(name));
    }
    void raise(int signal) const { ::kill(pid_t(processId()), signal); }
    // -1 while it runs, or if it did not end by itself.
    [[nodiscard]] int status() const
    {
        return state() == NotRunning && exitStatus() == NormalExit ? exitCode() : -1;
    }
};
