#pragma once

#include "TLog.h"
#include "Waiting.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <filesystem>

using namespace std::chrono_literals;

// Lost data is lost for good, so whatever lies hidden counts too.
inline qsizetype filesBelow(const QString &folder)
{
    const std::filesystem::recursive_directory_iterator all(folder.toStdString());
    return std::count_if(begin(all), end(all), [](auto &entry) { return entry.is_regular_file(); });
}

// Does nothing if there is no such file.
inline void setAge(const QString &path, std::chrono::seconds age)
{
    const auto time = std::filesystem::file_time_type::clock::now() - age;
    std::error_code none;
    std::filesystem::last_write_time(path.toStdString(), time, none);
}

// A temporary folder and the files in it.
class Folder
{
public:
    // An absolute name stays as it is.
    [[nodiscard]] QString path(const QString &name = {}) const
    {
        return QDir(folder.path()).absoluteFilePath(name);
    }

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
    [[nodiscard]] QStringList logged(const QString &name = u"test.log"_s) const
    {
        QStringList lines = QString::fromUtf8(readFile(name)).split(u'\n', Qt::SkipEmptyParts);
        return lines.replaceInStrings(QRegularExpression(u"^\\S+ "_s), {});
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

    void forgetLog() const { QFile::remove(log.filePath()); }

private:
    TLog *const logBefore = pLog;
    TLog log{path(u"test.log"_s)};
};
