// Owning wrapper of an operating-system descriptor.
#ifndef SABLE_BASE_UNIQUE_FD_H
#define SABLE_BASE_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace sable {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : value(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : value(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return value; }
    bool Valid() const { return value >= 0; }
    int Release() { return std::exchange(value, -1); }
    void Reset(int fd = -1) {
        if (value >= 0) ::close(value);
        value = fd;
    }

  private:
    int value = -1;
};

}  // namespace sable

#endif
