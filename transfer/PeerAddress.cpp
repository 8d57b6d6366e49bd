#include "PeerAddress.h"

#include <QHostAddress>
#include <QNetworkInterface>

#include <algorithm>

bool PeerAddress::isUnspecified(const QHostAddress &address)
{
    const auto isOf = [&](const QHostAddress &other) {
        return address.isEqual(other, QHostAddress::ConvertV4MappedToIPv4);
    };
    return address.isNull() || isOf(QHostAddress(QHostAddress::AnyIPv4))
        || isOf(QHostAddress(QHostAddress::AnyIPv6));
}

bool PeerAddress::isThisHost(const QHostAddress &address)
{
    if (address.isLoopback())
        return true;
    const QList<QHostAddress> own = QNetworkInterface::allAddresses();
    return std::any_of(own.begin(), own.end(), [&](const QHostAddress &other) {
        return address.isEqual(other, QHostAddress::ConvertV4MappedToIPv4);
    });
}
