#pragma once

#include <QSettings>
#include <QString>

// One key of a module's settings file, and what it reads as when it is absent.
struct SettingKey
{
    QString name;
    QString defaultText;
};

// A value as the person wrote it, from the group that the settings have entered. QSettings takes an
// unquoted comma for a list of values.
[[nodiscard]] inline QString settingText(const QSettings &settings, const SettingKey &key)
{
    return settings.value(key.name, key.defaultText).toStringList().join(u',');
}

// The group that every module of the family has.
namespace BaseSettings {

inline const QString group = QStringLiteral("Base");
inline const QString noName = QStringLiteral("NoName"); // what an absent name reads as

inline const SettingKey logName = {QStringLiteral("LogName"), QString()};
inline const SettingKey log = {QStringLiteral("Log"), QStringLiteral("0")};
inline const SettingKey adminServerName = {QStringLiteral("AdminServerName"), noName};
inline const SettingKey serverName = {QStringLiteral("ServerName"), noName};
inline const SettingKey connections = {QStringLiteral("Connections"), noName};

inline const SettingKey keys[] = {logName, log, adminServerName, serverName, connections};

} // namespace BaseSettings
