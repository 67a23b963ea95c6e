#ifndef DAEMON_DESCRIPTOR_H
#define DAEMON_DESCRIPTOR_H

#include <unistd.h>
#include <utility>

/// Owns a file descriptor.
class Descriptor
{
public:
    Descriptor() = default;
    explicit Descriptor(int number) : mNumber(number) {}
    Descriptor(Descriptor&& other) noexcept : mNumber(std::exchange(other.mNumber, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(mNumber, other.mNumber);
        return *this;
    }
    ~Descriptor() { close(); }

    int number() const { return mNumber; }
    bool isOpen() const { return mNumber != -1; }

    /// Hands the descriptor over to another owner.
    int release() { return std::exchange(mNumber, -1); }

    void close()
    {
        if (mNumber != -1)
            ::close(std::exchange(mNumber, -1));
    }

private:
    int mNumber = -1;
};

#endif
