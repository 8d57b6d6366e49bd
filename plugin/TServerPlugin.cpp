#include "TServerPlugin.h"

#include "BaseSettings.h"
#include "BusFrame.h"
#include "DataBase.h"
#include "LoggingLevel.h"
#include "Settings.h"
#include "TConnector.h"
#include "TLog.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QSqlError>
#include <QThread>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(pluginCategory, "morvane.plugin", defaultLoggingLevel())

} // namespace

TServerPlugin::TServerPlugin(QObject *parent)
    : QObject(parent)
    , connector(new TConnector(this))
{
}

TServerPlugin::~TServerPlugin()
{
    if (!templateSettings)
        return;
    const QString file = templateSettings->fileName();
    delete templateSettings;
    QFile::remove(file);
}

void TServerPlugin::Start()
{
}

bool TServerPlugin::LoadSettings(QString path)
{
    Q_ASSERT(thread() == QThread::currentThread());
    if (path.isEmpty())
        path = getIniNameDefault(false);
    QSettings settings(path, QSettings::IniFormat);
    settings.beginGroup(BaseSettings::group);
    loadLog(settings);
    loadBase(settings);
    settings.endGroup();

    // The log is off by default, so a wrong path would otherwise leave no trace at all.
    if (!QFileInfo::exists(path))
        qCWarning(pluginCategory, "Settings file \"%s\" does not exist: defaults apply",
            qPrintable(path));
    else if (settings.status() != QSettings::NoError)
        qCWarning(pluginCategory, "Settings file \"%s\" cannot be read in full", qPrintable(path));
    return true;
}

void TServerPlugin::loadLog(const QSettings &settings)
{
    QString name = settingText(settings, BaseSettings::logName);
    if (name.isEmpty())
        name =
            TLog::getDirPathDefault(QFileInfo(QCoreApplication::applicationFilePath()).baseName());
    // Logs of earlier loads are kept: other code may still point to one.
    static auto *const logs = new QList<TLog *>;
    pLog = logs->emplaceBack(new TLog(name));
    pLog->level = settingText(settings, BaseSettings::log).toInt();
    pLog->Enabled(pLog->level != 0);
}

void TServerPlugin::loadBase(const QSettings &settings)
{
    QString admin = settingText(settings, BaseSettings::adminServerName);
    if (admin == BaseSettings::noName) {
        pLog->Message(tr("Error load settings AdminServerName: NoName "), TLog::Priority::Error);
        admin = u"No_AdminServer_name"_s;
    }
    connector->adminConnection->name = admin.toUtf8();

    const QString server = settingText(settings, BaseSettings::serverName);
    if (server == BaseSettings::noName)
        pLog->Message(tr("Error load settings ServerName: NoName "), TLog::Priority::Error);
    else
        connector->SetServerName(server);

    const QString connections = settingText(settings, BaseSettings::connections);
    if (connections == BaseSettings::noName || connections.isEmpty()) {
        pLog->Message(tr("Warrning: No Connections "));
        return;
    }
    const QStringList names = connections.split(u' ', Qt::KeepEmptyParts);
    for (const QString &name : names)
        connector->addOutServerName(name);
}

QSettings *TServerPlugin::prepareTemplateSettings()
{
    if (!templateSettings) {
        templateSettings = new QSettings(getIniNameDefault(true), QSettings::IniFormat);
        templateSettings->setFallbacksEnabled(false);
    }
    return templateSettings;
}

bool TServerPlugin::openDataBaseBySettings(
    QString &connectionName, QSettings &settings, const QString &group, QString databaseName)
{
    const QSqlError error = ::openDataBaseBySettings(connectionName, settings, group, databaseName);
    if (!error.isValid())
        return true;
    pLog->Message(
        tr("Cannot open database %1: %2").arg(databaseName, error.text()), TLog::Priority::Error);
    return false;
}

void TServerPlugin::SetAction(
    QByteArray &action_name, QByteArray &message, QByteArray &data, int IDConnection)
{
    connector->sendToAdmin(BusFrame::makeAction(action_name, message, data, IDConnection));
}

void TServerPlugin::SendBusMessage(const QByteArray &iface, const QByteArray &data, int idConnect)
{
    connector->sendToAdmin(BusFrame::makeBusMessage(iface, data, idConnect));
}
