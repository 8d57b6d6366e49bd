#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

class QSettings;
class TConnector;

// The base of every module of the family: owns the bus connector, reads the group "Base" of the
// settings file and sends to the administration server. A missing settings file means defaults
// everywhere.
class TServerPlugin : public QObject
{
    Q_OBJECT
public:
    explicit TServerPlugin(QObject *parent = nullptr);
    ~TServerPlugin() override;

    // Called once, after the settings are loaded and before the event loop runs.
    virtual void Start();

    // Reads the group "Base" of a settings file, creates the log and sets up the connector. An
    // empty path means the default file. Always returns true.
    bool LoadSettings(QString path);

    // Returns the settings that hold all known keys with their defaults; creates them at the first
    // call. The destructor removes them and their file.
    QSettings *prepareTemplateSettings();

    // Opens the database that a group of the settings describes. Logs why if it returns false.
    bool openDataBaseBySettings(
        QString &connectionName, QSettings &settings, const QString &group, QString databaseName);

    // Send to the administration server. While it is not connected, nothing is sent or kept.
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
