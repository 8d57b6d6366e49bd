#include "DataBase.h"

#include <QSettings>
#include <QSqlDatabase>

using namespace Qt::StringLiterals;

namespace {

QSqlDatabase configuredDatabase(
    const QString &connection, QSettings &settings, const QString &group, const QString &name)
{
    settings.beginGroup(group);
    QSqlDatabase database =
        QSqlDatabase::addDatabase(settings.value(u"Driver"_s, u"QSQLITE"_s).toString(), connection);
    database.setHostName(settings.value(u"Host"_s).toString());
    database.setPort(settings.value(u"Port"_s, -1).toInt());
    database.setDatabaseName(settings.value(u"Name"_s, name).toString());
    database.setUserName(settings.value(u"User"_s).toString());
    database.setPassword(settings.value(u"Password"_s).toString());
    settings.endGroup();
    return database;
}

} // namespace

QSqlError openDataBaseBySettings(
    QString &connectionName, QSettings &settings, const QString &group, QString databaseName)
{
    const QString connection = connectionName.isEmpty()
        ? QString::fromLatin1(QSqlDatabase::defaultConnection)
        : connectionName;
    if (QSqlDatabase::contains(connection))
        QSqlDatabase::removeDatabase(connection);

    QSqlError error;
    {
        QSqlDatabase database = configuredDatabase(connection, settings, group, databaseName);
        if (database.open())
            return {};
        error = database.lastError();
    }
    // A connection may be removed only after the last copy of its object is gone.
    QSqlDatabase::removeDatabase(connection);
    return error;
}
