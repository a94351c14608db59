// Readers of framed bytes for the tests: one over a byte buffer (also the shape a fuzzer
// drives) and one over a real descriptor that behaves like a pipe's receive side.
#ifndef SABLE_TESTS_FRAMES_FRAME_SOURCES_H
#define SABLE_TESTS_FRAMES_FRAME_SOURCES_H

#include <errno.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "pipe/MagicReceiver.h"

namespace sable_test {

// Delivers the bytes of a buffer; at the end, end of file (or a chosen error). A request for
// more than is left delivers what is left and reports a short read as -1, as a pipe does.
class ByteReceiver : public MagicReceiver {
public:
    explicit ByteReceiver(std::vector<uint8_t> data, int32_t atEnd = 0)
        : bytes(std::move(data)), endResult(atEnd) {}

    int32_t Recv(void* buf, size_t len) override {
        ++calls;
        if (buf == nullptr) {
            return -1;
        }
        if (pos == bytes.size()) {
            return endResult;
        }
        size_t n = len < bytes.size() - pos ? len : bytes.size() - pos;
        if (n != 0) {
            memcpy(buf, bytes.data() + pos, n);
        }
        pos += n;
        return n == len ? static_cast<int32_t>(n) : -1;
    }

    size_t Consumed() const { return pos; }
    size_t Left() const { return bytes.size() - pos; }
    size_t Calls() const { return calls; }

private:
    std::vector<uint8_t> bytes;
    int32_t endResult;
    size_t pos = 0;
    size_t calls = 0;
};

// One read(2) per Recv over a descriptor it does not own: -errno, 0 at end of file, -1 for a
// short read.
class FdReceiver : public MagicReceiver {
public:
    explicit FdReceiver(int readFd) : fd(readFd) {}

    int32_t Recv(void* buf, size_t len) override {
        if (buf == nullptr) {
            return -1;
        }
        ssize_t n = read(fd, buf, len);
        if (n < 0) {
            return -errno;
        }
        if (n == 0) {
            return 0;
        }
        return static_cast<size_t>(n) == len ? static_cast<int32_t>(n) : -1;
    }

private:
    int fd;
};

}  // namespace sable_test

#endif
