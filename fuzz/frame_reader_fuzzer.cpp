// The receive side of a pipe reading bytes that any writer of its FIFO may have put there: the
// input goes into a real pipe, and frames are taken as a pipe's receive turn takes them (whole
// frames from the buffer, else field by field), until the bytes run out.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "pipe/FrameBuffer.h"
#include "pipe/MagicReceiver.h"
#include "pipe/Message.h"
#include "pipe/MessageFrame.h"

namespace {

// A pipe's reading side over one descriptor, as SablePipeImpl reads its FIFO.
class PipeReader : public MagicReceiver {
  public:
    explicit PipeReader(int readFd) : fd(readFd) {}
    int32_t Recv(void* buf, size_t len) override {
        return RecvFromFifo(fd, &buffer, buf, len, remote);
    }
    FrameBuffer buffer;
    const int fd;
    const std::string remote = "fuzz";
};

// A pipe holds 64 KiB by default: the input is written whole before it is read.
constexpr size_t kMaxInput = 60000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) {
        return 0;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        abort();
    }
    if (size > 0 && write(fds[1], data, size) != static_cast<ssize_t>(size)) {
        abort();
    }
    close(fds[1]);  // the reader sees end of file after the input
    PipeReader reader(fds[0]);
    InMessage msg(0, 0, 0);
    for (;;) {
        if (reader.buffer.Available() == 0 && reader.buffer.Fill(fds[0]) <= 0) {
            break;
        }
        const uint64_t before = reader.buffer.Consumed();
        if (TakeWholeFrame(reader.buffer, msg) || ReadFrame(reader, msg, fds[0], reader.remote)) {
            // A frame taken is a whole, valid one: its payload is there and its sum adds up.
            const uint32_t received = msg.checksum;
            if (!msg.SizeValid() || msg.GetData() == nullptr || msg.Checksum() != received) {
                abort();
            }
            continue;
        }
        if (reader.buffer.Consumed() == before) {
            break;  // nothing more could be read
        }
    }
    close(fds[0]);
    return 0;
}
