#include "pipe/MagicReceiver.h"

#include <errno.h>

#include "log/NuxSyslog.h"

// Out-of-line definitions so that both constants are data objects of the library that a client
// can link against.
const uint32_t MagicReceiver::MAGIC;
const uint8_t MagicReceiver::MAGIC_ENUM[4] = {0xD9, 0xC8, 0xB7, 0xA6};

// MAGIC_ENUM spells MAGIC as it lies in memory, which is what a sender writes.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "MAGIC_ENUM lists the bytes of MAGIC in little-endian order");

MagicReceiver::MagicResult MagicReceiver::RecvMagic() {
    for (size_t i = 0; i < sizeof(MAGIC_ENUM); ++i) {
        uint8_t byte = 0;
        int32_t ret = Recv(&byte, sizeof(byte));
        if (ret < 0) {
            // -EAGAIN is a readiness event that carried no data (another reader was faster).
            if (ret == -EAGAIN) {
                LOGI("Receive magic error, received: %x, expected: %x, ret = %d\n", byte,
                     MAGIC_ENUM[i], ret);
            } else {
                LOGE_R("Receive magic error, received: %u, expected: %u, ret=%d.\n",
                       static_cast<unsigned>(byte), static_cast<unsigned>(MAGIC_ENUM[i]), ret);
            }
            return MAGIC_RECV_ERROR;
        }
        if (ret == 0) {
            // Between frames an end of file is the peer's ordinary close; inside the magic it
            // means the peer died in the middle of a write.
            if (i == 0) {
                LOGI("Received 0 when receiving magic, expected: %x\n", MAGIC_ENUM[0]);
            } else {
                LOGE_R("Received 0 when receiving magic, expected: %u.\n",
                       static_cast<unsigned>(MAGIC_ENUM[i]));
            }
            return MAGIC_PEER_CLOSED;
        }
        if (byte != MAGIC_ENUM[i]) {
            LOGE_R("Receive magic error, received: %u, expected: %u, ret=%d.\n",
                   static_cast<unsigned>(byte), static_cast<unsigned>(MAGIC_ENUM[i]), ret);
            return MAGIC_MISMATCH;
        }
    }
    return MAGIC_OK;
}
