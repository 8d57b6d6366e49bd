#pragma once

#include <QString>

#include <chrono>

// What a service manager that has started this process wants to hear of it. Without one nothing
// happens.
//
// Thread:  main thread only: what is alive there is what counts.
// Errors:  ignored. A manager that cannot be told will notice by itself.
namespace ServiceManager {

[[nodiscard]] bool isThere();

// The process does what it was started for.
void sayReady();
// The end has begun.
void sayStopping();
// One line for a person who looks at the service.
void showStatus(const QString &line);

// The process goes on. The event loop says it by a timer; a wait that holds the event loop up and
// has an end of its own says it too. Costs next to nothing when it comes more than once a second.
void sayAlive();
// How long the manager waits for that before it ends the process; 0: for ever.
[[nodiscard]] std::chrono::milliseconds watchdogTime();

} // namespace ServiceManager
