#pragma once

#include <QString>

class QSettings;

// Where a module's files lie when nobody names them.
//
// false: the settings file, <base name of the executable>.ini: beside the executable if it exists
//        there, else in the user's configuration folder.
// true:  the template settings file of this process, in the user's runtime folder, or else in the
//        folder for temporary files. Its name holds the process id, so that modules that run at
//        once do not meet; the templates that ended processes left behind are removed.
[[nodiscard]] QString getIniNameDefault(bool templateFile);

// Compares a person's settings with the template of all keys that the module knows, and logs once
// for every key in the template's groups that the template lacks: it is most likely misspelt.
// The settings are never changed: QSettings would rewrite the file without its comments.
void rebuildSettingsByTemplate(QSettings &settings, QSettings &templateSettings);
