#pragma once

#include <QSqlError>
#include <QString>

class QSettings;

// Opens a database as a group of the settings says, and registers it with Qt's SQL module under
// the given connection name (an empty name is the default connection). An open connection of that
// name is replaced.
//
// Keys of the group: "Driver" (default "QSQLITE"), "Host", "Port", "Name" (default: the
// databaseName that is passed here), "User" and "Password".
//
// The result is a valid error when the database could not be opened; no connection is left then.
[[nodiscard]] QSqlError openDataBaseBySettings(
    QString &connectionName, QSettings &settings, const QString &group, QString databaseName);
