#pragma once

#include <QString>

class QSettings;

// Returns the path of a file that nobody has named.
//
// false: the settings file, <base name of the executable>.ini: beside the executable if it exists
//        there, else in the user's configuration folder.
// true:  the template settings file of this process, in the user's runtime folder, or else in the
//        folder for temporary files. Its name holds the process id, so that modules do not share
//        it. Removes the templates of processes that have ended.
[[nodiscard]] QString getIniNameDefault(bool templateFile);

// Logs every key of `settings` that stands in one of the template's groups but not in the template,
// which holds all keys that the module knows: the key is most likely misspelt. Never changes the
// settings: QSettings would rewrite the file without its comments.
void rebuildSettingsByTemplate(QSettings &settings, QSettings &templateSettings);
