#pragma once

#include <QLoggingCategory>

// Returns the level from which a category of this project writes lines unless a rule names it: that
// of the category "default". So the rule "default.debug=false" silences all of them, and
// "default.debug=false;morvane.transfer.debug=true" all but one.
[[nodiscard]] inline QtMsgType defaultLoggingLevel()
{
    const QLoggingCategory &category = *QLoggingCategory::defaultCategory();
    if (!category.isWarningEnabled())
        return QtCriticalMsg;
    return category.isDebugEnabled() ? QtDebugMsg : QtInfoMsg;
}
