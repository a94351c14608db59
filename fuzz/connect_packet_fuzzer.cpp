// The packet reader of a server reading bytes that any writer of its FIFO may have put there.
// The input arrives in pieces whose sizes the input itself decides, as reads of a FIFO that
// several writers fill do; the reader takes packets until the bytes run out.
#include <errno.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "server/ConnectPacketReader.h"
#include "server/PipeServerMessage.h"

namespace {

class BytesReader : public ConnectPacketReader {
  public:
    BytesReader(const uint8_t* bytes, size_t count) : data(bytes), size(count) {}

  protected:
    ssize_t Fill(uint8_t* dst, size_t room, int waitMs) override {
        if (pos >= size) {
            // Inside a packet nothing more is there; between packets the source has ended.
            return waitMs == 0 ? -ETIMEDOUT : 0;
        }
        size_t n = 1 + data[pos] % 97;  // the piece a read would return
        n = n < room ? n : room;
        n = n < size - pos ? n : size - pos;
        memcpy(dst, data + pos, n);
        pos += n;
        return static_cast<ssize_t>(n);
    }
    const char* SourceName() const override { return "fuzz"; }

  private:
    const uint8_t* data;
    size_t size;
    size_t pos = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    BytesReader reader(data, size);
    ConnectPacketReader::Packet packet;
    while (reader.Next(packet) == ConnectPacketReader::Result::PACKET) {
        if (packet.type == PIPE_SERVER_MSG_CONNECT) {
            // A connect packet handed on always carries a whole name of 1 to 110 bytes.
            const size_t len =
                packet.name ? strnlen(packet.name.get(), ConnectPacketReader::MAX_READ_NAME + 1)
                            : 0;
            if (len < 1 || len > ConnectPacketReader::MAX_READ_NAME) {
                abort();
            }
        } else if (packet.type != PIPE_SERVER_MSG_TERMINATE) {
            abort();
        }
    }
    return 0;
}
