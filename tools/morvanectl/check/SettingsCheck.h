#pragma once

#include "ModuleSettings.h"
#include "SettingsText.h"

// What will not work in one settings file, beyond what the module itself says.
//
// Owner:   the subcommand check.
// Errors:  never throws. Nothing is created or bound. The only connection is one to the
//          administration server, on which nothing is sent.
class SettingsCheck
{
public:
    struct Finding
    {
        int line;
        bool isError; // or a warning: it works, but hardly as it is meant
        QString text;
    };

    // The working directory of the module; empty if it is not known, then the current one counts.
    SettingsCheck(const QString &file, const QString &workingDirectory);

    // In the order of the lines.
    [[nodiscard]] QList<Finding> findings() const;
    // Of what this file and one that was checked before cannot both have.
    [[nodiscard]] QList<Finding> clashesWith(const SettingsCheck &other) const;

private:
    using Key = SettingKey;
    void checkNames();
    void checkKeyNames(const QString &path);
    void checkLog();
    void checkBus();
    void checkAdminServer(const QString &name);
    void checkServerName(const QString &name);
    void checkConnections(const QString &admin, const QString &server);
    void checkBusName(const Key &key, const QString &name);
    void checkMain();
    void checkNumber(const Key &key);
    void checkSpool();
    void checkTcp();
    void checkUdp();
    void checkPort(const Key &key);
    void checkPace();
    void checkWhatLiesInSpool();

    void addBase(bool isError, const Key &key, const QString &text);
    void addMain(bool isError, const Key &key, const QString &text);
    [[nodiscard]] bool knowsSpool() const; // or guesses where it is, from the current directory
    [[nodiscard]] QString spoolPath() const { return settings.spoolPath(directory); }

    const QString file;
    const bool isDirectoryKnown;
    const QString directory;
    ModuleSettings settings;
    const QByteArray content;
    SettingsText text;
    QList<Finding> found;
};
