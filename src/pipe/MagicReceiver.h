// Base of every reader of framed data (pipes, the server FIFO): finds and checks the frame
// magic byte by byte through the derived class's Recv.
#ifndef SABLE_PIPE_MAGIC_RECEIVER_H
#define SABLE_PIPE_MAGIC_RECEIVER_H

#include <cstddef>
#include <cstdint>

class MagicReceiver {
  public:
    // The first word of every frame and packet.
    static const uint32_t MAGIC = 0xA6B7C8D9u;
    // The bytes of MAGIC as they stand in memory and on the wire (native byte order).
    static const uint8_t MAGIC_ENUM[4];

    enum MagicResult : int32_t {
        MAGIC_OK = 0,           // four bytes read, all equal to MAGIC_ENUM
        MAGIC_MISMATCH = 1,     // a byte differed (it is consumed; nothing resynchronises)
        MAGIC_PEER_CLOSED = 2,  // end of file: the writer has gone
        MAGIC_RECV_ERROR = 3,   // Recv failed
    };

    MagicReceiver() = default;
    virtual ~MagicReceiver() = default;
    MagicReceiver(const MagicReceiver&) = delete;
    MagicReceiver& operator=(const MagicReceiver&) = delete;

    // Reads up to `len` bytes into `buf`, never more. Returns the count (which the frame reader
    // treats as a failure unless it is `len`), 0 at end of file, or a negative errno (-EAGAIN
    // when nothing is there). Must refuse a null `buf` with a negative result: the frame reader
    // passes the payload buffer of a frame with an invalid length as it stands, null.
    virtual int32_t Recv(void* buf, size_t len) = 0;

    // Reads the four magic bytes one Recv of one byte at a time and stops at the first byte
    // that fails. An end of file or -EAGAIN before the first byte is expected and logged at
    // info level only; anything else is logged as an error.
    MagicResult RecvMagic();
};

#endif
