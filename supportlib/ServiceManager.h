#pragma once

#include <QString>

#include <chrono>

// Messages to the service manager that has started this process; without one, these do nothing. A
// message that cannot be sent is dropped: the manager notices by itself.
//
// Call them on the main thread only, because the sign of life must prove that this thread runs.
namespace ServiceManager {

[[nodiscard]] bool isThere();

// The process is ready for work.
void sayReady();
// The process has begun to stop.
void sayStopping();
// Shows one line to a person who looks at the service.
void showStatus(const QString &line);

// Sends a sign of life, at most one a second, so it may be called often. A timer of the event loop
// calls it, and so do the waits that may block the loop again and again: for a bus server, and for
// the spool's lock.
void sayAlive();
// Returns the time without a sign of life after which the manager kills the process; 0 means never.
[[nodiscard]] std::chrono::milliseconds watchdogTime();

} // namespace ServiceManager
