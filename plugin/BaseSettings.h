#pragma once

#include <QSettings>
#include <QString>

// One key of a module's settings file, and the text that stands for an absent key.
struct SettingKey
{
    QString name;
    QString defaultText;
};

// Returns a value of the current group as the person wrote it. QSettings makes a list of a value
// with an unquoted comma; this joins it again.
[[nodiscard]] inline QString settingText(const QSettings &settings, const SettingKey &key)
{
    return settings.value(key.name, key.defaultText).toStringList().join(u',');
}

// The group that every module of the family has.
namespace BaseSettings {

inline const QString group = QStringLiteral("Base");
inline const QString noName = QStringLiteral("NoName"); // stands for an absent name

inline const SettingKey logName = {QStringLiteral("LogName"), QString()};
inline const SettingKey log = {QStringLiteral("Log"), QStringLiteral("0")};
inline const SettingKey adminServerName = {QStringLiteral("AdminServerName"), noName};
inline const SettingKey serverName = {QStringLiteral("ServerName"), noName};
inline const SettingKey connections = {QStringLiteral("Connections"), noName};

inline const SettingKey keys[] = {logName, log, adminServerName, serverName, connections};

} // namespace BaseSettings
