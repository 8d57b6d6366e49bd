#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

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
};

// The names of waiting files, in the order of sending.
//
// A backlog may be long, so a name takes little more memory than its own bytes.
//
// Owner:   whoever goes through it; a value that can be moved.
// Thread:  any one thread.
// Errors:  never throws.
class SpoolListing
{
public:
    SpoolListing() = default;
    SpoolListing(SpoolListing &&) = default;
    SpoolListing &operator=(SpoolListing &&) = default;

    // Valid UTF-8, in any order.
    void add(const QByteArray &name);
    // To be called when all names are there.
    void sort();

    [[nodiscard]] bool isEmpty() const { return next >= places.size(); }
    [[nodiscard]] QString first() const;
    void removeFirst() { ++next; }

private:
    std::vector<std::string> texts; // for each name its key, 0, the name unless it is the same, 0
    std::vector<const char *> places; // of the names in the texts, which are never moved
    size_t next = 0;
};
