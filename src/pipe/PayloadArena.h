// Storage for the payloads of the requests one receive turn queues together: a block or two
// per turn instead of an allocation per request.
#ifndef SABLE_PIPE_PAYLOAD_ARENA_H
#define SABLE_PIPE_PAYLOAD_ARENA_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

// Not thread-safe: it belongs to whoever holds the pipe's read side.
class PayloadArena {
  public:
    // The blocks handed on by Release: they free the payloads when they go.
    struct Blocks {
        std::unique_ptr<uint8_t[]> last;
        std::vector<std::unique_ptr<uint8_t[]>> earlier;  // usually none
    };

    // `len` bytes that stay valid until the blocks are released and dropped; null when they
    // cannot be allocated. A new block is made `hint` bytes large (at least `len`, at most
    // 64 KiB unless `len` needs more): the bytes the turn is still likely to bring.
    uint8_t* Take(size_t len, size_t hint);
    // Hands every block over (for the task that runs the turn's requests) and starts afresh.
    Blocks Release();

  private:
    Blocks blocks;
    size_t used = 0;
    size_t size = 0;  // of blocks.last
};

#endif
