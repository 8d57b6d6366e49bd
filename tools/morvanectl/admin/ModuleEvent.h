#pragma once

#include <QJsonObject>

struct ModuleAction;

// What happens to the modules, as objects for programs: each names its "event" and its "time".
namespace ModuleEvent {

// The details are those of the event's own.
[[nodiscard]] QJsonObject make(const char *event, const QJsonObject &details = {});

[[nodiscard]] QJsonObject connected(const QByteArray &module);
[[nodiscard]] QJsonObject renamed(const QByteArray &module, const QByteArray &before);
[[nodiscard]] QJsonObject disconnected(const QByteArray &module);
[[nodiscard]] QJsonObject action(const QByteArray &module, const ModuleAction &action);

// One line, its end included.
[[nodiscard]] QByteArray line(const QJsonObject &event);

} // namespace ModuleEvent
