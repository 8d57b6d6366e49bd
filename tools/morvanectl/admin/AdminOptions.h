#pragma once

#include "AdminCommand.h"

#include <QList>

class CommandLine;

struct AdminOptions
{
    QString name;
    QList<AdminCommand> commands;
    int stepLimitSeconds = 0;
    int staySeconds = 0;
    bool leavesAfterwards = false;
    bool serves = false;
    bool asJson = false;
};

void addAdminOptions(CommandLine &line);
// Prints a usage error and returns false if the command line makes no sense.
[[nodiscard]] bool readAdminOptions(CommandLine &line, AdminOptions &options);
