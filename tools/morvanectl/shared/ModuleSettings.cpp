#include "ModuleSettings.h"

#include <QDir>
#include <QFile>

using namespace Qt::StringLiterals;

namespace {

SettingKey inGroup(const QString &group, const SettingKey &key)
{
    return {group + u'/' + key.name, key.defaultText};
}

} // namespace

ModuleSettings::ModuleSettings(const QString &file)
    : path(file)
    , settings(file, QSettings::IniFormat)
{
}

QString ModuleSettings::problem() const
{
    QFile file(path);
    if (QFileInfo(path).isDir())
        return u"it is a folder"_s;
    return file.open(QIODevice::ReadOnly) ? QString() : file.errorString();
}

QString ModuleSettings::base(const SettingKey &key) const
{
    return settingText(settings, inGroup(BaseSettings::group, key));
}

QString ModuleSettings::main(const SettingKey &key) const
{
    return settingText(settings, inGroup(MainSettings::group, key));
}

quint16 ModuleSettings::mainNumber(const SettingKey &key) const
{
    return MainSettings::number(main(key));
}

QString ModuleSettings::spoolPath(const QString &workingDirectory) const
{
    return QDir::cleanPath(QDir(workingDirectory).absoluteFilePath(main(MainSettings::tempDir)));
}

bool ModuleSettings::isList(const QString &key) const
{
    return settings.value(key).toStringList().size() > 1;
}
