#include "SettingsCheck.h"

#include "NameGuess.h"
#include "TLog.h"

#include <QDir>
#include <QFile>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

const QString rotatedLogs = u"/var/log/morvane/*.log"_s;

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

template <typename Keys> QStringList namesOf(const Keys &keys)
{
    QStringList names;
    for (const SettingKey &key : keys)
        names.append(key.name);
    return names;
}

QStringList knownKeys(const QString &group)
{
    if (group == BaseSettings::group)
        return namesOf(BaseSettings::keys);
    return group == MainSettings::group ? namesOf(MainSettings::keys) : QStringList();
}

QString otherGroup(const QString &group)
{
    return group == BaseSettings::group ? MainSettings::group : BaseSettings::group;
}

// Returns why this user cannot create a file in the folder; empty if that works.
QString folderProblem(const QString &path)
{
    const QFileInfo folder(path);
    if (!folder.exists())
        return u"the folder %1 does not exist"_s.arg(path);
    if (!folder.isDir())
        return u"%1 is not a folder"_s.arg(path);
    return folder.isWritable() && folder.isExecutable()
        ? QString()
        : u"permission denied for the folder %1"_s.arg(path);
}

} // namespace

SettingsCheck::SettingsCheck(const QString &path, const QString &workingDirectory)
    : file(path)
    , isDirectoryKnown(!workingDirectory.isEmpty())
    , directory(isDirectoryKnown ? workingDirectory : QDir::currentPath())
    , settings(path)
    , content(contentOf(path))
    , text(content)
{
}

QList<SettingsCheck::Finding> SettingsCheck::run()
{
    found.clear();
    if (const QString problem = settings.problem(); !problem.isEmpty())
        return {{1, Severity::Error,
            u"the file cannot be read, so every setting has its default: "_s + problem}};
    checkText();
    checkNames();
    checkLog();
    checkBus();
    checkMain();
    checkWhatLiesInSpool();
    std::stable_sort(found.begin(), found.end(),
        [](const Finding &a, const Finding &b) { return a.line < b.line; });
    return found;
}

void SettingsCheck::checkText()
{
    for (const SettingsText::Remark &remark : text.remarks())
        found.append({remark.line, Severity::Warning, remark.text});
    if (const qsizetype zero = content.indexOf('\0'); zero >= 0)
        found.append({int(content.first(zero).count('\n')) + 1, Severity::Error,
            u"the line holds a zero byte: the rest of the line may be lost"_s});
}

void SettingsCheck::addBase(Severity severity, const Key &key, const QString &finding)
{
    found.append({text.lineOf(BaseSettings::group, key.name), severity, finding});
}

void SettingsCheck::addMain(Severity severity, const Key &key, const QString &finding)
{
    found.append({text.lineOf(MainSettings::group, key.name), severity, finding});
}

bool SettingsCheck::isSpoolPathKnown() const
{
    return isDirectoryKnown || QDir::isAbsolutePath(settings.main(MainSettings::tempDir));
}

// --- names that the module does not know ---

void SettingsCheck::checkNames()
{
    const QStringList paths = settings.allKeys();
    QStringList unknownGroups;
    for (const QString &path : paths) {
        const QString group = path.left(std::max<qsizetype>(path.indexOf(u'/'), 0));
        if (group.isEmpty() || !knownKeys(group).isEmpty())
            checkKeyNames(path);
        else if (!unknownGroups.contains(group))
            unknownGroups.append(group);
    }
    for (const QString &group : std::as_const(unknownGroups))
        found.append({text.lineOf(group), Severity::Warning,
            u"the module knows no group [%1]: nothing in it has an effect%2"_s.arg(
                group, guessHint(group, {BaseSettings::group, MainSettings::group}))});
}

void SettingsCheck::checkKeyNames(const QString &path)
{
    const qsizetype slash = path.indexOf(u'/');
    const QString group = path.left(std::max<qsizetype>(slash, 0));
    const QString key = path.sliced(slash + 1);
    const int line = text.lineOf(group, key);
    if (settings.isList(path))
        found.append({line, Severity::Warning,
            u"\"%1\" has a comma but no quotes: blanks next to the "
            "comma are lost"_s.arg(key)});
    if (knownKeys(group).contains(key))
        return;
    const QString home = group.isEmpty() && knownKeys(MainSettings::group).contains(key)
        ? MainSettings::group
        : otherGroup(group);
    const QString hint = knownKeys(home).contains(key) ? u"; it belongs in [%1]"_s.arg(home)
                                                       : guessHint(key, knownKeys(group));
    found.append({line, Severity::Warning,
        u"\"%1\" has no effect %2%3"_s.arg(
            key, group.isEmpty() ? u"outside a group"_s : u"in [%1]"_s.arg(group), hint)});
}

// --- the group Base: the log and the bus ---

void SettingsCheck::checkLog()
{
    const QString level = settings.base(BaseSettings::log);
    bool isNumber = false;
    if (level.toInt(&isNumber) == 0 && isNumber)
        return addBase(Severity::Warning, BaseSettings::log,
            u"the log is off: the module reports its problems nowhere"_s);
    if (!isNumber)
        return addBase(Severity::Error, BaseSettings::log,
            u"\"Log\" = \"%1\" is not a number: the log is off"_s.arg(level));
    const QString name = settings.base(BaseSettings::logName);
    if (name == u"journal")
        return;
    const QString folder = QFileInfo(QDir(directory).absoluteFilePath(name)).path();
    if (const QString problem = folderProblem(folder); name.contains(u'/') && !problem.isEmpty())
        addBase(Severity::Error, BaseSettings::logName, u"the log cannot be written: "_s + problem);
}

// Whatever is in the spool directory itself is sent and then removed.
void SettingsCheck::checkWhatLiesInSpool()
{
    const QString spool = QFileInfo(spoolPath()).canonicalFilePath();
    if (spool.isEmpty())
        return;
    const auto isDirectlyInSpool = [&](const QString &path) {
        const QString folder = QFileInfo(QDir(directory).absoluteFilePath(path)).path();
        return QFileInfo(folder).canonicalFilePath() == spool;
    };
    const QString logName = settings.base(BaseSettings::logName);
    if (logName.contains(u'/') && isDirectlyInSpool(logName))
        addBase(Severity::Error, BaseSettings::logName,
            u"the log is in the spool folder: it would be sent and removed"_s);
    else if (logName.contains(u'/')
        && !QDir::match(rotatedLogs, TLog(QDir(directory).absoluteFilePath(logName)).filePath()))
        addBase(Severity::Warning, BaseSettings::logName,
            u"the service rotates only %1: this log grows without bound unless you rotate "
            "it"_s.arg(rotatedLogs));
    if (QFileInfo(QFileInfo(file).absolutePath()).canonicalFilePath() == spool)
        addMain(Severity::Error, MainSettings::tempDir,
            u"this settings file is in the spool folder: it would be sent and removed"_s);
    const QString statusFile = settings.main(MainSettings::statusFile);
    if (statusFile.isEmpty())
        return;
    const QString problem =
        folderProblem(QFileInfo(QDir(directory).absoluteFilePath(statusFile)).path());
    if (isDirectlyInSpool(statusFile))
        addMain(Severity::Error, MainSettings::statusFile,
            u"the status file is in the spool folder: it would be sent and removed"_s);
    else if (!problem.isEmpty())
        addMain(Severity::Warning, MainSettings::statusFile,
            u"the status file cannot be written: "_s + problem);
}

// --- what two modules cannot share ---

QList<SettingsCheck::Finding> SettingsCheck::clashesWith(const SettingsCheck &other) const
{
    QList<Finding> clashes;
    const auto add = [&](Severity severity, const QString &group, const Key &key,
                         const QString &what) {
        clashes.append({text.lineOf(group, key.name), severity, what.arg(other.file)});
    };
    const QString name = settings.base(BaseSettings::serverName);
    if (name != BaseSettings::noName && name == other.settings.base(BaseSettings::serverName))
        add(Severity::Error, BaseSettings::group, BaseSettings::serverName,
            u"%1 has the same \"ServerName\": each module takes it away from the other"_s);
    const QString statusFile = settings.main(MainSettings::statusFile);
    if (!statusFile.isEmpty() && statusFile == other.settings.main(MainSettings::statusFile))
        add(Severity::Error, MainSettings::group, MainSettings::statusFile,
            u"%1 has the same \"StatusFile\": each module overwrites the other's"_s);
    const Key &port = MainSettings::localPort;
    if (settings.isUdp() && other.settings.isUdp()
        && settings.mainNumber(port) == other.settings.mainNumber(port))
        add(Severity::Error, MainSettings::group, port,
            u"%1 has the same \"LocalPort\": only one of the two modules gets it"_s);
    if (isSpoolPathKnown() && other.isSpoolPathKnown() && spoolPath() == other.spoolPath())
        add(Severity::Warning, MainSettings::group, MainSettings::tempDir,
            u"%1 has the same \"TempDir\": each module also sends what the other has accepted"_s);
    return clashes;
}
