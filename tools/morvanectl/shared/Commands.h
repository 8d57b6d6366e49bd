#pragma once

#include <QStringList>

// The subcommands. Each takes its own name and its arguments, and returns the exit status of the
// process.
int runAdmin(const QStringList &arguments);
int runCheck(const QStringList &arguments);
int runReceive(const QStringList &arguments);
int runSend(const QStringList &arguments);
int runSpool(const QStringList &arguments);
