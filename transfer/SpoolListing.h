#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <limits>
#include <string>
#include <vector>

// A file's name as the order of sending sees it: names are compared by their lower-case form, code
// unit by code unit. Those that differ in letter case only come in a fixed order too.
//
// All of it is UTF-8.
struct SpoolName
{
    QByteArrayView key; // in lower case
    QByteArrayView name;

    [[nodiscard]] static QByteArray keyOf(const QByteArray &name);
    bool operator<(const SpoolName &other) const;
    // The same for a name whose key is not made yet; makes none for a name in ASCII.
    [[nodiscard]] static bool isBefore(QByteArrayView name, const SpoolName &other);
};

// The names of waiting files, in the order of sending.
//
// A backlog may be long, so a name takes little more memory than its own bytes, and a listing may
// be bounded: then it keeps the first names in the order of sending and drops the others.
//
// Owner:   whoever goes through it; a value that can be moved.
// Thread:  any one thread.
// Errors:  never throws.
class SpoolListing
{
public:
    // Keeps names that follow one, or all if it is empty. At most about twice that many bytes are
    // held at a time.
    explicit SpoolListing(
        const QByteArray &after = {}, size_t mostBytes = std::numeric_limits<size_t>::max() / 4);
    SpoolListing(SpoolListing &&) = default;
    SpoolListing &operator=(SpoolListing &&) = default;

    // Valid UTF-8, in any order.
    void add(const char *name);
    // To be called when all names are there.
    void sort();

    [[nodiscard]] bool isEmpty() const { return next >= places.size(); }
    [[nodiscard]] QByteArray firstName() const;
    [[nodiscard]] QString first() const { return QString::fromUtf8(firstName()); }
    void removeFirst() { ++next; }
    // Whether names were dropped: they follow all that were kept.
    [[nodiscard]] bool isCutOff() const { return !bound.empty(); }

private:
    void store(QByteArrayView key, QByteArrayView name);
    void dropLargerHalf();

    std::vector<std::string> texts; // for each name its key, 0, the name unless it is the same, 0
    std::vector<const char *> places; // of the names in the texts, which are never moved
    size_t next = 0;
    size_t bytes = 0; // of the texts and places
    size_t mostBytes;
    std::string after; // as in the texts; names up to this one are left out,
    std::string bound; // and those behind this one; empty for none
    std::string key; // of the name that is being added
};
