#pragma once

#include <QString>

#include <functional>

// Receives the messages for the operator from code that may not call TLog, which is main-thread
// only. It may be called on whatever thread that code runs on.
using MessageSink = std::function<void(const QString &text)>;
