#pragma once

#include "ModuleSettings.h"
#include "SettingsText.h"

// Finds what will not work in one settings file, beyond what the module itself reports.
//
// Errors:  creates and binds nothing. run() connects to the administration server and to nobody
//          else, and sends nothing there.
class SettingsCheck
{
public:
    enum class Severity {
        Warning, // the module works, but hardly as the operator means it
        Error,
    };
    struct Finding
    {
        int line;
        Severity severity;
        QString text;
    };

    // Reads the file. The working directory is the module's; if it is empty, paths are resolved
    // against the current one.
    SettingsCheck(const QString &file, const QString &workingDirectory);

    // Returns what is wrong, in the order of the lines.
    [[nodiscard]] QList<Finding> run();
    // Returns what this file and one that was checked before cannot both have.
    [[nodiscard]] QList<Finding> clashesWith(const SettingsCheck &other) const;

private:
    using Key = SettingKey;
    void checkText();
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

    void addBase(Severity severity, const Key &key, const QString &text);
    void addMain(Severity severity, const Key &key, const QString &text);
    [[nodiscard]] bool isSpoolKnown() const; // not only guessed from the current directory
    [[nodiscard]] QString spoolPath() const { return settings.spoolPath(directory); }

    const QString file;
    const bool isDirectoryKnown;
    const QString directory;
    ModuleSettings settings;
    const QByteArray content;
    SettingsText text;
    QList<Finding> found;
};
