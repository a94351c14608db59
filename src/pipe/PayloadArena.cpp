#include "pipe/PayloadArena.h"

#include <algorithm>
#include <new>
#include <utility>

namespace {
constexpr size_t kMaxBlock = 64 * 1024;
}  // namespace

uint8_t* PayloadArena::Take(size_t len, size_t hint) {
    if (blocks.last && size - used >= len) {
        uint8_t* at = blocks.last.get() + used;
        used += len;
        return at;
    }
    const size_t want = std::max(len, std::min(hint, kMaxBlock));
    std::unique_ptr<uint8_t[]> fresh(new (std::nothrow) uint8_t[want]);
    if (!fresh) {
        return nullptr;
    }
    if (blocks.last) {
        try {
            blocks.earlier.push_back(std::move(blocks.last));
        } catch (const std::bad_alloc&) {
            return nullptr;  // the full block stays the last one
        }
    }
    blocks.last = std::move(fresh);
    size = want;
    used = len;
    return blocks.last.get();
}

PayloadArena::Blocks PayloadArena::Release() {
    Blocks out = std::move(blocks);
    blocks = Blocks{};
    used = size = 0;
    return out;
}
