#pragma once

#include <functional>
#include <initializer_list>

class QObject;

// Calls `handler` from the event loop for each of these signals, even if the shell ignores them for
// background jobs, as long as `context` lives. Call it before any other thread is started.
//
// A signal that comes while the main thread waits (for the spool's lock or a connection of the bus,
// up to 30 seconds each) is handled after that wait. If the kernel gives no descriptor for the
// signals, prints a warning; they end the process at once then.
void onSignals(
    std::initializer_list<int> signals, QObject *context, std::function<void(int signal)> handler);

// Quits the event loop with status 0 on SIGINT or SIGTERM. Nothing is torn down: what must be kept
// is on the disk already.
void endLoopOnStopSignals(QObject *context);

// Call after the event loop has ended. Returns the signal that has ended it, or came when it was
// about to end; 0 if there is none.
[[nodiscard]] int stopSignal();
