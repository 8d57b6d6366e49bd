#include "Settings.h"

#include "TLog.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

#include <cerrno>
#include <csignal>
#include <sys/types.h>

using namespace Qt::StringLiterals;

namespace {

QString executableBaseName()
{
    return QFileInfo(QCoreApplication::applicationFilePath()).baseName();
}

QString settingsFile()
{
    const QString name = executableBaseName() + u".ini"_s;
    const QString beside = QDir(QCoreApplication::applicationDirPath()).filePath(name);
    if (QFileInfo::exists(beside))
        return beside;
    return QDir(QStandardPaths::writableLocation(QStandardPaths::ConfigLocation)).filePath(name);
}

// Does not ask Qt if XDG_RUNTIME_DIR is not set: Qt would make a folder up and print a warning.
QString runtimeFolder()
{
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR"))
        return QDir::tempPath();
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    return QFileInfo(folder).isWritable() ? folder : QDir::tempPath();
}

// A module normally ends without removing its template, so every start does it for ended processes.
void removeTemplatesOfEndedProcesses(QDir folder, const QString &prefix, const QString &suffix)
{
    const QStringList names = folder.entryList({prefix + u'*' + suffix}, QDir::Files);
    for (const QString &name : names) {
        bool isNumber = false;
        const pid_t pid = name.sliced(prefix.size()).chopped(suffix.size()).toInt(&isNumber);
        if (isNumber && pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH)
            folder.remove(name);
    }
}

QString templateFileOfThisProcess()
{
    const QDir folder(runtimeFolder());
    const QString prefix = executableBaseName() + u"-template-"_s;
    const QString suffix = u".ini"_s;
    removeTemplatesOfEndedProcesses(folder, prefix, suffix);
    return folder.filePath(prefix + QString::number(QCoreApplication::applicationPid()) + suffix);
}

} // namespace

QString getIniNameDefault(bool templateFile)
{
    return templateFile ? templateFileOfThisProcess() : settingsFile();
}

void rebuildSettingsByTemplate(QSettings &settings, QSettings &templateSettings)
{
    const QStringList groups = templateSettings.childGroups();
    for (const QString &group : groups) {
        templateSettings.beginGroup(group);
        const QStringList known = templateSettings.allKeys();
        templateSettings.endGroup();

        settings.beginGroup(group);
        const QStringList present = settings.allKeys();
        settings.endGroup();

        for (const QString &key : present) {
            if (!known.contains(key))
                pLog->Message(u"Unknown key \"%1\" in group [%2] of %3: it has no effect"_s.arg(
                                  key, group, settings.fileName()),
                    TLog::Priority::Warning);
        }
    }
}
