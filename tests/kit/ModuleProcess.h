#pragma once

#include "Program.h"
#include "Workplace.h"

#include <unistd.h>

// A module process with a folder of its own, which is also its bus.
class ModuleProcess : public Program
{
public:
    ModuleProcess()
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"TMPDIR"_s, place.path());
        environment.insert(u"XDG_CONFIG_HOME"_s, place.path());
        environment.remove(u"XDG_RUNTIME_DIR"_s);
        // A sanitizer that keeps freed memory aside would look like a module that does.
        environment.insert(u"ASAN_OPTIONS"_s, u"quarantine_size_mb=1"_s);
        setWorkingDirectory(place.path());
        environment.insert(u"QT_LOGGING_RULES"_s, u"default.debug=false"_s);
        setProcessEnvironment(environment);
        setProcessChannelMode(QProcess::ForwardedErrorChannel);
    }
    ~ModuleProcess() override { killNow(); }

    QString writeSettings(const QString &name, const QByteArray &base, const QByteArray &main)
    {
        place.makeFolder(u"spool"_s);
        return place.writeFile(name,
            "[Base]\nLog=1\nServerName=me\n" + base + "[Main]\nTempDir=spool\nHost=127.0.0.1\n"
                + "ReconnectionTimeout=1\n" + main);
    }

    void addToEnvironment(const QString &name, const QString &value)
    {
        QProcessEnvironment environment = processEnvironment();
        environment.insert(name, value);
        setProcessEnvironment(environment);
    }

    void startWith(const QStringList &arguments) { run(u"morvane"_s, arguments); }

    // Puts a record into the spool as the other users of the directory do.
    void record(const char *kind, const QString &name, const QByteArray &payload) const
    {
        const QString hidden = place.writeFile(u"spool/.fed"_s, kind + payload);
        if (::rename(qPrintable(hidden), qPrintable(place.path(u"spool/"_s + name))) != 0)
            qFatal("cannot spool %s", qPrintable(name));
    }

    // Kills the process. Nobody waits for a lock that it has left: its time has passed at once.
    void killNow()
    {
        kill();
        waitForFinished();
        setAge(place.path(u"spool/.lock"_s), 60s);
    }

    [[nodiscard]] bool isListening() const { return QFile::exists(place.path(u"me"_s)); }

    [[nodiscard]] QStringList spooled() const
    {
        return QDir(place.path(u"spool"_s)).entryList(QDir::Files);
    }

    // Of processor time that the process has taken.
    [[nodiscard]] double processorSeconds() const
    {
        const QByteArray line = place.readFile(u"/proc/%1/stat"_s.arg(processId()));
        const QByteArrayList fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        return (fields.value(11).toDouble() + fields.value(12).toDouble())
            / double(::sysconf(_SC_CLK_TCK));
    }

    // Megabytes that the process holds in memory.
    [[nodiscard]] qint64 residentMegabytes() const
    {
        const QByteArray pages = place.readFile(u"/proc/%1/statm"_s.arg(processId()));
        return pages.split(' ').value(1).toLongLong() * 4096 / 1'000'000;
    }

    const Folder place;
};
