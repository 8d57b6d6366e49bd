#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

class QSettings;
class TConnector;

// The base of every module of the family: its bus connector, its group "Base" of the settings file
// and its way to the administration server.
//
// Owner:   the process entry.
// Thread:  main thread.
// Errors:  never throws; they go to the log. A missing settings file means defaults everywhere.
class TServerPlugin : public QObject
{
    Q_OBJECT
public:
    explicit TServerPlugin(QObject *parent = nullptr);
    ~TServerPlugin() override;

    // Called once, after the settings are loaded and before the event loop runs.
    virtual void Start();

    // Reads the group "Base" of a settings file, makes the log and sets up the connector. An empty
    // path means the default file. Always true.
    bool LoadSettings(QString path);

    // The settings that hold all known keys with their defaults, made at the first call. They and
    // their file go with this object.
    QSettings *prepareTemplateSettings();

    // Opens a database as a group of the settings says; false after logging why it failed.
    bool openDataBaseBySettings(
        QString &connectionName, QSettings &settings, const QString &group, QString databaseName);

    // Send to the administration server; lost while it is not connected.
    void SetAction(
        QByteArray &action_name, QByteArray &message, QByteArray &data, int IDConnection);
    void SendBusMessage(const QByteArray &iface, const QByteArray &data, int idConnect);

protected:
    TConnector *connector;

private:
    void loadBase(const QSettings &settings);
    void loadLog(const QSettings &settings);

    QSettings *templateSettings = nullptr;
};
