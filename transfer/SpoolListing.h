#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <limits>
#include <string>
#include <vector>

// A file's name with its key for the order of sending. Names are ordered by their lower-case form,
// by UTF-16 code units. Names that differ only in letter case have a fixed order too.
//
// All texts are UTF-8.
struct SpoolName
{
    QByteArrayView key; // in lower case
    QByteArrayView name;

    [[nodiscard]] static QByteArray keyOf(const QByteArray &name);
    bool operator<(const SpoolName &other) const;
    // Compares a name that has no key yet. Builds no key if the name is ASCII.
    [[nodiscard]] static bool isBefore(QByteArrayView name, const SpoolName &other);
};

// The names of waiting files, in the order of sending.
//
// Because a backlog may be long, a name takes little more memory than its own bytes. A listing may
// also be bounded: then it keeps the first names in the order of sending and drops the others.
class SpoolListing
{
public:
    // Keeps names that follow after, or all names if it is empty. Holds at most about twice
    // mostBytes at a time.
    explicit SpoolListing(
        const QByteArray &after = {}, size_t mostBytes = std::numeric_limits<size_t>::max() / 4);
    SpoolListing(SpoolListing &&) = default;
    SpoolListing &operator=(SpoolListing &&) = default;

    // Adds a name, which must be valid UTF-8. Names may come in any order.
    void add(const char *name);
    // Call once after all names are added.
    void sort();

    [[nodiscard]] bool isEmpty() const { return next >= entries.size(); }
    [[nodiscard]] QByteArray firstName() const;
    [[nodiscard]] QString first() const { return QString::fromUtf8(firstName()); }
    void removeFirst() { ++next; }
    // Returns whether names were dropped. Those follow all kept names.
    [[nodiscard]] bool isCutOff() const { return !bound.empty(); }

private:
    void store(QByteArrayView key, QByteArrayView name);
    void dropLargerHalf();

    // Texts hold entries: the key of a name, 0, the name unless it equals the key, 0. They are
    // never reallocated, because `entries` points into them.
    std::vector<std::string> texts;
    std::vector<const char *> entries;
    size_t next = 0; // of the entries
    size_t bytes = 0; // of texts and entries
    size_t mostBytes;
    // Two entries. Names up to `after` and names beyond `bound` are left out; empty for no limit.
    std::string after, bound;
    std::string key; // kept between calls of add() to save allocations
};
