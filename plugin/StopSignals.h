#pragma once

#include <functional>
#include <initializer_list>

class QObject;

// Has the event loop call the handler for each of these signals that arrives, also where the shell
// had them ignored, as it does for background jobs.
//
// A signal that comes while the main thread waits (for the spool's lock or a connection of the bus,
// up to 30 seconds each) is handled after that wait.
//
// Owner:   a program that runs until it is stopped. It stays in force as long as the context lives.
// Thread:  main thread, before any other is started.
// Errors:  without a descriptor for the signals they keep their usual effect, which is said.
void onSignals(
    std::initializer_list<int> signals, QObject *context, std::function<void(int signal)> handler);

// Turns SIGINT and SIGTERM into the end of the event loop with status 0. Nothing is torn down: what
// must be kept is on the disk already.
void endLoopOnStopSignals(QObject *context);

// The signal that has ended the event loop; 0 if none has.
[[nodiscard]] int stopSignal();
