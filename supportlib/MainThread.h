#pragma once

#include <QCoreApplication>
#include <QThread>

// For assertions in what only the main thread may call. True without an application object, too.
[[nodiscard]] inline bool isMainThread()
{
    const QCoreApplication *const application = QCoreApplication::instance();
    return !application || application->thread() == QThread::currentThread();
}
