#pragma once

#include <QSqlError>
#include <QString>

class QSettings;

// Opens the database that a group of the settings describes, and registers it with Qt's SQL module
// as `connectionName` (if empty, as the default connection). Replaces a connection of that name.
//
// Keys of the group: "Driver" (default "QSQLITE"), "Host", "Port", "Name" (default: the argument
// databaseName), "User" and "Password".
//
// Returns a valid error if the database cannot be opened, and leaves no connection then.
[[nodiscard]] QSqlError openDataBaseBySettings(
    QString &connectionName, QSettings &settings, const QString &group, QString databaseName);
