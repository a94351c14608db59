// Reads connect and terminate packets from the bytes written into a server FIFO.
#ifndef SABLE_SERVER_CONNECT_PACKET_READER_H
#define SABLE_SERVER_CONNECT_PACKET_READER_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "pipe/MagicReceiver.h"

// The packet reader of a server. It takes each field with one Recv of the field's width and logs
// every malformed packet with the line of the field that failed, as a field-by-field reader of
// the FIFO does; underneath, the bytes come from a buffer that the derived class fills.
//
// Any writer of the FIFO can put anything there, so two rules keep one bad packet from costing
// the packets around it:
// - Resynchronisation: after a malformed packet (bad magic, bad type, a size outside 1..110, a
//   field that never came) reading starts again at the byte after that packet's first byte, not
//   after the bytes it swallowed: a packet that follows a stray byte, a partial packet or a
//   connect packet without a name is found and served.
// - No waiting inside a packet: every packet travels in one atomic write, so once its first
//   byte is in the FIFO the rest is too. A packet whose rest is not there when it is read is
//   incomplete: its field's line with the short count (or -ETIMEDOUT when nothing was there).
//   So a partial packet costs nothing but itself, except for a packet that was already waiting
//   in the FIFO right behind it when it was read.
// - A name with a NUL byte in it is malformed (a partial packet that took the start of the next
//   packet, whose type word is zero, for the rest of its name).
// The error lines are restrained (one per call site and thread per 600 s), so that garbage
// cannot flood the log. Not thread-safe: one reader thread.
class ConnectPacketReader : public MagicReceiver {
  public:
    // Longest client name the reader takes (a writer may send up to 254 bytes).
    static constexpr uint32_t MAX_READ_NAME = 110;

    struct Packet {
        uint32_t type = 0;
        uint32_t gid = 0;
        int32_t pid = 0;
        std::unique_ptr<char[]> name;  // NUL-terminated; connect packets only
    };
    enum class Result { PACKET, END };

    ConnectPacketReader();
    ~ConnectPacketReader() override = default;

    // Reads up to the next well-formed packet: PACKET with `out` filled (a terminate packet's
    // gid and pid are left unread in the source), or END when the source ended (Fill said 0).
    Result Next(Packet& out);

    // Serves `len` bytes from the buffer, filling it as needed: the count (short only when the
    // source ran dry or, inside a packet, has no more), 0 at the end of the source, or
    // the negative errno of Fill when nothing could be served.
    int32_t Recv(void* buf, size_t len) override;

    // Forgets the buffered bytes (a new source starts).
    void Reset();

  protected:
    // Appends at most `room` bytes of the source at `dst` and returns their count, 0 when the
    // source has ended (nothing more will come), or a negative errno. `waitMs` is how long it may
    // wait for bytes: -1 without limit (between packets), 0 not at all (inside a packet: then
    // -ETIMEDOUT when nothing is there).
    virtual ssize_t Fill(uint8_t* dst, size_t room, int waitMs) = 0;
    // Names the source in the lines.
    virtual const char* SourceName() const = 0;

  private:
    static constexpr size_t CAPACITY = 4096;

    // Starts the next attempt one byte after the failed packet's first byte.
    void Resync();

    uint8_t buffer[CAPACITY];
    size_t begin = 0;
    size_t end = 0;
    size_t packetStart = 0;  // where the packet being read began
};

#endif
