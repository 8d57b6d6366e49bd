#pragma once

#include <unistd.h>
#include <utility>

// A file descriptor that is closed at the end of its scope.
class Descriptor
{
public:
    explicit Descriptor(int descriptor = -1)
        : number(descriptor)
    {
    }
    Descriptor(Descriptor &&other) noexcept
        : number(other.release())
    {
    }
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(number, other.number);
        return *this;
    }
    ~Descriptor()
    {
        if (number >= 0)
            ::close(number);
    }
    [[nodiscard]] bool isOpen() const { return number >= 0; }
    [[nodiscard]] int get() const { return number; }
    // Gives up the descriptor. The caller closes it.
    [[nodiscard]] int release() { return std::exchange(number, -1); }

private:
    int number;
};
