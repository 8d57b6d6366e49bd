#pragma once

#include <QJsonObject>

struct ModuleAction;

// JSON objects for what happens to the modules. Each has an "event" and a "time".
namespace ModuleEvent {

// Adds the event and the time to the details.
[[nodiscard]] QJsonObject make(const char *event, const QJsonObject &details = {});

[[nodiscard]] QJsonObject connected(const QByteArray &module);
[[nodiscard]] QJsonObject renamed(const QByteArray &module, const QByteArray &before);
[[nodiscard]] QJsonObject disconnected(const QByteArray &module);
[[nodiscard]] QJsonObject action(const QByteArray &module, const ModuleAction &action);

// Returns the object as one line with its line feed.
[[nodiscard]] QByteArray line(const QJsonObject &event);

} // namespace ModuleEvent
