#pragma once

#include "MainSettings.h"

#include <QStringList>

// A module's settings file, read as the module reads it.
//
// Errors:  a missing file gives the defaults, as it does in the module.
class ModuleSettings
{
public:
    explicit ModuleSettings(const QString &path);

    // Why the file as a whole cannot be read; empty if it can.
    [[nodiscard]] QString problem() const;

    [[nodiscard]] QString base(const SettingKey &key) const;
    [[nodiscard]] QString main(const SettingKey &key) const;
    [[nodiscard]] quint16 number(const SettingKey &key) const; // of the group Main
    [[nodiscard]] bool isUdp() const { return main(MainSettings::protocol) == u"UDP"; }
    [[nodiscard]] bool isTcp() const { return main(MainSettings::protocol) == u"TCP"; }

    // The spool directory of a module that works in the given directory.
    [[nodiscard]] QString spoolPath(const QString &workingDirectory) const;

    // All that the file sets, as "Group/Key", or "Key" outside of any group.
    [[nodiscard]] QStringList allKeys() const { return settings.allKeys(); }
    // Returns whether an unquoted comma makes a list of the value; blanks next to it are lost.
    [[nodiscard]] bool isList(const QString &path) const;

private:
    QString path;
    QSettings settings;
};
