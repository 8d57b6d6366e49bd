#include "SpoolListing.h"

#include <algorithm>

namespace {

constexpr size_t textBytes = 65'536; // of one piece of memory

// The order of UTF-16 code units is that of UTF-8 bytes but for one thing: characters beyond U+FFFF
// (first bytes F0 to F4) are surrogates there, and come before U+E000 to U+FFFF (EE and EF).
uchar rank(char byte)
{
    const uchar value = uchar(byte);
    return value == 0xEE || value == 0xEF ? value + 0x10 : value;
}

int compare(QByteArrayView a, QByteArrayView b)
{
    const auto [x, y] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    if (x == a.end() || y == b.end())
        return int(x != a.end()) - int(y != b.end());
    return rank(*x) - rank(*y);
}

bool isAscii(QByteArrayView text)
{
    return std::all_of(text.begin(), text.end(), [](char byte) { return uchar(byte) < 0x80; });
}

SpoolName nameAt(const char *place)
{
    const QByteArrayView key(place), name(place + key.size() + 1);
    return {key, name.isEmpty() ? key : name};
}

} // namespace

QByteArray SpoolName::keyOf(const QByteArray &name)
{
    return isAscii(name) ? name.toLower() : QString::fromUtf8(name).toLower().toUtf8();
}

bool SpoolName::operator<(const SpoolName &other) const
{
    const int order = compare(key, other.key);
    return order != 0 ? order < 0 : compare(name, other.name) < 0;
}

void SpoolListing::add(const QByteArray &name)
{
    const QByteArray key = SpoolName::keyOf(name);
    const QByteArray entry = key + '\0' + (key != name ? name : QByteArray()) + '\0';
    if (texts.empty() || texts.back().capacity() - texts.back().size() < size_t(entry.size()))
        texts.emplace_back().reserve(textBytes);
    places.push_back(texts.back().data() + texts.back().size());
    texts.back().append(entry.constData(), size_t(entry.size()));
}

void SpoolListing::sort()
{
    std::sort(places.begin(), places.end(),
        [](const char *a, const char *b) { return nameAt(a) < nameAt(b); });
}

QString SpoolListing::first() const
{
    return QString::fromUtf8(nameAt(places[next]).name);
}
