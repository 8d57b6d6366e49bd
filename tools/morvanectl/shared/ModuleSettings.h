#pragma once

#include "MainSettings.h"

#include <QStringList>

// A module's settings file, read as the module reads it: a missing file gives the defaults.
class ModuleSettings
{
public:
    explicit ModuleSettings(const QString &path);

    // Returns why the file as a whole cannot be read; empty if it can.
    [[nodiscard]] QString problem() const;

    [[nodiscard]] QString base(const SettingKey &key) const;
    [[nodiscard]] QString main(const SettingKey &key) const;
    [[nodiscard]] quint16 mainNumber(const SettingKey &key) const;
    [[nodiscard]] bool isUdp() const { return main(MainSettings::protocol) == u"UDP"; }
    [[nodiscard]] bool isTcp() const { return main(MainSettings::protocol) == u"TCP"; }

    // Returns the spool directory of a module with this working directory.
    [[nodiscard]] QString spoolPath(const QString &workingDirectory) const;

    // Returns all keys of the file, as "Group/Key", or "Key" outside any group.
    [[nodiscard]] QStringList allKeys() const { return settings.allKeys(); }
    // Returns whether the value holds an unquoted comma, next to which blanks are lost.
    [[nodiscard]] bool isList(const QString &path) const;

private:
    QString path;
    QSettings settings;
};
