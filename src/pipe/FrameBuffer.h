// The bytes of a read FIFO that have been read and not yet parsed.
#ifndef SABLE_PIPE_FRAME_BUFFER_H
#define SABLE_PIPE_FRAME_BUFFER_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// One read(2) takes what the FIFO holds (up to CAPACITY bytes); the frame reader then takes
// each field from here. Take() answers exactly as one read(2) of the field's length from the
// FIFO would have at that point of the byte stream: the whole field, a short count when the
// FIFO holds fewer bytes, 0 at end of file, -errno (-EAGAIN when empty). So a reader that reads
// field by field sees the same results, whether its bytes come from here or straight from the
// FIFO, while the FIFO is read once per CAPACITY bytes instead of once per field.
//
// The storage: a receive thread lends one CAPACITY-byte buffer of its own to the pipe whose
// turn it is (Lend) and takes it back at the end of the turn (Reclaim); bytes not yet taken by
// then (a frame cut by the end of a read, or frames left while the pipe pauses) move into
// storage of the pipe's own, exactly their size. So an idle pipe holds no receive buffer at
// all. Without a lent buffer the first read allocates a CAPACITY-byte one of its own. Not
// thread-safe: one reader thread.
class FrameBuffer {
  public:
    static constexpr size_t CAPACITY = 64 * 1024;

    // Reads from here on go to `buffer` (CAPACITY bytes, not owned), after the bytes kept.
    void Lend(uint8_t* buffer);
    // Gives the lent buffer back: the bytes not taken yet are kept in storage of their own.
    void Reclaim();

    FrameBuffer() = default;
    FrameBuffer(const FrameBuffer&) = delete;
    FrameBuffer& operator=(const FrameBuffer&) = delete;

    // Serves `len` bytes (len <= CAPACITY / 2) into `dst`: reads `fd` once when fewer than
    // `len` bytes are buffered. Returns len, a short count (those bytes are consumed), 0 at end
    // of file with nothing buffered, or -errno with nothing buffered (-ENOMEM when the storage
    // cannot be allocated).
    ssize_t Take(int fd, void* dst, size_t len);
    // Reads `fd` once into the free space. The count, 0 at end of file, or -errno.
    ssize_t Fill(int fd);
    // Bytes read and not yet taken.
    size_t Available() const { return end - begin; }
    // The buffered bytes (Available() of them), for a reader that parses in place; valid until
    // the next Take, Fill or Release.
    const uint8_t* Peek() const { return storage + begin; }
    // Consumes `n` <= Available() bytes that the caller took through Peek().
    void Skip(size_t n) {
        begin += n;
        consumed += n;
    }
    // Bytes taken so far, in all: tells a reader whether an attempt consumed anything.
    uint64_t Consumed() const { return consumed; }
    // Forgets the buffered bytes and frees the storage.
    void Release();

  private:
    uint8_t* storage = nullptr;      // lent or own
    std::unique_ptr<uint8_t[]> own;  // storage of this buffer's own, if any
    size_t ownSize = 0;              // its size in bytes
    size_t begin = 0;
    size_t end = 0;
    uint64_t consumed = 0;
};

// One field for the frame reader, as a pipe's receive side reads it: from `buffer` when one is
// given, else by one read(2) of `fd` of exactly `len` bytes. The count; 0 at end of file;
// -errno when nothing could be read ("The readFd(%d) read fail..." at info level for -EAGAIN,
// restrained error otherwise); -1 for a null `buf` or a short read (restrained error lines).
// `remoteName` only names the source in the lines.
int32_t RecvFromFifo(int fd, FrameBuffer* buffer, void* buf, size_t len,
                     const std::string& remoteName);

#endif
