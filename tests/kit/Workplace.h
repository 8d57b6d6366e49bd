#pragma once

#include "TLog.h"
#include "Waiting.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

// Lost data is lost for good, so whatever lies hidden counts too.
inline qsizetype filesBelow(const QString &folder)
{
    qsizetype count = 0;
    for (QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
         it.hasNext(); it.next())
        ++count;
    return count;
}

// A temporary folder and the files in it.
class Folder
{
public:
    [[nodiscard]] QString path(const QString &name = {}) const { return folder.filePath(name); }

    QString makeFolder(const QString &name) const
    {
        QDir(folder.path()).mkpath(name);
        return path(name);
    }

    QString writeFile(const QString &name, const QByteArray &content) const
    {
        QFile file(path(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(file.fileName()));
        return file.fileName();
    }

    [[nodiscard]] QByteArray readFile(const QString &name) const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    // The entries of a log without their time stamps.
    [[nodiscard]] QStringList logged(const QString &name) const
    {
        QStringList texts;
        const QStringList lines = QString::fromUtf8(readFile(name)).split(u'\n');
        for (const QString &line : lines) {
            if (!line.isEmpty())
                texts.append(line.sliced(line.indexOf(u' ') + 1));
        }
        return texts;
    }

private:
    QTemporaryDir folder;
};

// The folder of a test that plays a module itself: bus names lead into it, and the log is in it.
class Workplace : public Folder
{
public:
    Workplace()
    {
        qputenv("TMPDIR", QFile::encodeName(path()));
        pLog = &log;
        log.Enabled(true);
    }
    ~Workplace()
    {
        if (pLog != &log)
            delete pLog; // of a module that has loaded its settings
        pLog = logBefore;
        qunsetenv("TMPDIR");
    }

    [[nodiscard]] QStringList logged() const { return Folder::logged(logName); }
    void forgetLog() const { QFile::remove(path(logName)); }

private:
    TLog *const logBefore = pLog;
    const QString logName = QStringLiteral("test.log");
    TLog log{path(logName)};
};
