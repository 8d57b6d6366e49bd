#include "SpoolListing.h"

#include <algorithm>

namespace {

constexpr size_t bytesPerText = 65'536;

// Gives bytes of UTF-8 the order of UTF-16 code units. The two differ in one thing only: in UTF-16,
// characters beyond U+FFFF (first bytes F0 to F4) come before U+E000 to U+FFFF (EE and EF).
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

SpoolName nameAt(const char *entry)
{
    const QByteArrayView key(entry), name(entry + key.size() + 1);
    return {key, name.isEmpty() ? key : name};
}

bool isBefore(const char *a, const char *b)
{
    return nameAt(a) < nameAt(b);
}

// Returns what nameAt() reads: the key, 0, the name unless it equals the key, 0.
std::string entryOf(QByteArrayView key, QByteArrayView name)
{
    std::string entry(key.begin(), key.end());
    entry += '\0';
    if (key != name)
        entry.append(name.begin(), name.end());
    return entry += '\0';
}

char lowered(char letter)
{
    return letter >= 'A' && letter <= 'Z' ? char(letter + 'a' - 'A') : letter;
}

} // namespace

QByteArray SpoolName::keyOf(const QByteArray &name)
{
    return isAscii(name) ? name.toLower() : QString::fromUtf8(name).toLower().toUtf8();
}

bool SpoolName::isBefore(QByteArrayView name, const SpoolName &other)
{
    if (!isAscii(name)) {
        const QByteArray copy = name.toByteArray();
        return SpoolName{keyOf(copy), copy} < other;
    }
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
    const auto [x, y] = std::mismatch(name.begin(), name.end(), other.key.begin(), other.key.end(),
        [&](char a, char b) { return lower(a) == b; });
    if (x != name.end() && y != other.key.end())
        return rank(lower(*x)) < rank(*y);
    if (x != name.end() || y != other.key.end())
        return x == name.end();
    return compare(name, other.name) < 0;
}

bool SpoolName::operator<(const SpoolName &other) const
{
    const int order = compare(key, other.key);
    return order != 0 ? order < 0 : compare(name, other.name) < 0;
}

SpoolListing::SpoolListing(const QByteArray &afterName, size_t most)
    : mostBytes(most)
{
    if (!afterName.isEmpty())
        after = entryOf(SpoolName::keyOf(afterName), afterName);
}

void SpoolListing::add(const char *text)
{
    const QByteArrayView name(text);
    key.assign(name.begin(), name.end());
    if (isAscii(name))
        std::transform(key.begin(), key.end(), key.begin(), lowered);
    else
        key = SpoolName::keyOf(name.toByteArray()).toStdString();
    const SpoolName added = {QByteArrayView(key), name};
    if ((!after.empty() && !(nameAt(after.data()) < added))
        || (!bound.empty() && nameAt(bound.data()) < added))
        return;
    store(added.key, name);
    if (bytes > 2 * mostBytes)
        dropLargerHalf();
}

void SpoolListing::store(QByteArrayView nameKey, QByteArrayView name)
{
    const std::string entry = entryOf(nameKey, name);
    if (texts.empty() || texts.back().capacity() - texts.back().size() < entry.size())
        texts.emplace_back().reserve(bytesPerText);
    entries.push_back(texts.back().data() + texts.back().size());
    texts.back().append(entry);
    bytes += entry.size() + sizeof(entries.front());
}

// Copies the half that is kept, so that the memory of the other one can be freed.
void SpoolListing::dropLargerHalf()
{
    const auto middle = entries.begin() + std::ptrdiff_t(entries.size() / 2);
    std::nth_element(entries.begin(), middle, entries.end(), isBefore);
    const SpoolName last = nameAt(*std::max_element(entries.begin(), middle, isBefore));
    bound = entryOf(last.key, last.name);
    const std::vector<const char *> kept(entries.begin(), middle);
    const std::vector<std::string> old = std::exchange(texts, {});
    entries.clear();
    bytes = 0;
    for (const char *entry : kept)
        store(nameAt(entry).key, nameAt(entry).name);
}

void SpoolListing::sort()
{
    std::sort(entries.begin(), entries.end(), isBefore);
}

QByteArray SpoolListing::firstName() const
{
    Q_ASSERT(!isEmpty());
    return nameAt(entries[next]).name.toByteArray();
}
