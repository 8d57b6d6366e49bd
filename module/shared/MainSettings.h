#pragma once

#include "BaseSettings.h"

#include <algorithm>

// The keys of this module's own group in the settings file, with their defaults.
namespace MainSettings {

inline const QString group = QStringLiteral("Main");

inline const SettingKey tempDir = {QStringLiteral("TempDir"), QStringLiteral("tmp")};
inline const SettingKey host = {QStringLiteral("Host"), QStringLiteral("127.0.0.1")};
inline const SettingKey port = {QStringLiteral("Port"), QStringLiteral("7071")};
inline const SettingKey localPort = {QStringLiteral("LocalPort"), QStringLiteral("9000")};
inline const SettingKey timeout = {QStringLiteral("Timeout"), QStringLiteral("1000")};
inline const SettingKey protocol = {QStringLiteral("Protocol"), QStringLiteral("TCP")};
inline const SettingKey reconnectionTimeout = {
    QStringLiteral("ReconnectionTimeout"), QStringLiteral("20")};
inline const SettingKey liveMessageTimeout = {
    QStringLiteral("LiveMessageTimeout"), QStringLiteral("60")};
inline const SettingKey acknowledgements = {
    QStringLiteral("Acknowledgements"), QStringLiteral("0")};
inline const SettingKey acknowledgementTimeout = {
    QStringLiteral("AcknowledgementTimeout"), QStringLiteral("60")};
inline const SettingKey statusFile = {QStringLiteral("StatusFile"), QString()};

inline const SettingKey onlyPeer = {QStringLiteral("OnlyPeer"), QStringLiteral("0")};
inline const SettingKey maxReceivedBytes = {
    QStringLiteral("MaxReceivedBytes"), QStringLiteral("0")};

inline const SettingKey keys[] = {tempDir, host, port, localPort, timeout, protocol,
    reconnectionTimeout, liveMessageTimeout, acknowledgements, acknowledgementTimeout, onlyPeer,
    maxReceivedBytes, statusFile};

// Returns 0 if `text` is not a number, and the low 16 bits of a number that is out of range.
[[nodiscard]] inline quint16 number(const QString &text)
{
    return quint16(text.toInt());
}

// Returns a number of bytes. 0 means no limit; so does `text` that is negative or not a number.
[[nodiscard]] inline qint64 byteLimit(const QString &text)
{
    return std::max<qint64>(text.toLongLong(), 0);
}

} // namespace MainSettings
