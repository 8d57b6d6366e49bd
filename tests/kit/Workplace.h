#pragma once

#include "TLog.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

// A temporary directory for one test: bus names lead into it, and the log is a file in it.
class Workplace
{
public:
    Workplace()
    {
        qputenv("TMPDIR", QFile::encodeName(folder.path()));
        pLog = &log;
        log.Enabled(true);
    }
    ~Workplace()
    {
        pLog = nullptr;
        qunsetenv("TMPDIR");
    }

    [[nodiscard]] QString path(const QString &name) const { return folder.filePath(name); }

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

    // The log's entries without their time stamps.
    [[nodiscard]] QStringList logged() const
    {
        QStringList texts;
        const QStringList lines = QString::fromUtf8(readFile(logName)).split(u'\n');
        for (const QString &line : lines) {
            if (!line.isEmpty())
                texts.append(line.sliced(line.indexOf(u' ') + 1));
        }
        return texts;
    }

    void forgetLog() const { QFile::remove(path(logName)); }

private:
    const QString logName = QStringLiteral("test.log");
    QTemporaryDir folder;
    TLog log{folder.filePath(logName)};
};
