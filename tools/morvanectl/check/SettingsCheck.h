#pragma once

#include "ModuleSettings.h"
#include "SettingsText.h"

// Finds the mistakes in one settings file that the module itself does not report.
//
// It creates and binds nothing. run() connects to the administration server only, and sends nothing
// there.
class SettingsCheck
{
public:
    enum class Severity {
        Warning, // the module works, but probably not as intended
        Error,
    };
    struct Finding
    {
        int line;
        Severity severity;
        QString text;
    };

    // `workingDirectory` is the module's; if it is empty, the current one stands in for it.
    SettingsCheck(const QString &file, const QString &workingDirectory);

    // Returns the mistakes in the order of their lines.
    [[nodiscard]] QList<Finding> run();
    // Returns the values that this file and another one cannot both have.
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
    [[nodiscard]] bool isSpoolPathKnown() const;
    [[nodiscard]] QString spoolPath() const { return settings.spoolPath(directory); }

    const QString file;
    const bool isDirectoryKnown;
    const QString directory;
    ModuleSettings settings;
    const QByteArray content;
    SettingsText text;
    QList<Finding> found;
};
