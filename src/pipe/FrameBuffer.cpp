#include "pipe/FrameBuffer.h"

#include <errno.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "log/NuxSyslog.h"

void FrameBuffer::Lend(uint8_t* buffer) {
    const size_t kept = Available();
    if (kept > 0) {
        memcpy(buffer, storage + begin, kept);
    }
    own.reset();
    ownSize = 0;
    storage = buffer;
    begin = 0;
    end = kept;
}

void FrameBuffer::Reclaim() {
    const size_t kept = Available();
    if (kept == 0) {
        storage = nullptr;
        begin = end = 0;
        return;
    }
    std::unique_ptr<uint8_t[]> rest(new (std::nothrow) uint8_t[kept]);
    if (!rest) {
        LOGE("Keep %lu received bytes failed, they are dropped\n",
             static_cast<unsigned long>(kept));
        storage = nullptr;
        begin = end = 0;
        return;
    }
    memcpy(rest.get(), storage + begin, kept);
    ownSize = kept;
    own = std::move(rest);
    storage = own.get();
    begin = 0;
    end = kept;
}

ssize_t FrameBuffer::Fill(int fd) {
    if (storage == nullptr || (storage == own.get() && ownSize < CAPACITY)) {
        // No lent buffer: one of this pipe's own, keeping what is there.
        std::unique_ptr<uint8_t[]> full(new (std::nothrow) uint8_t[CAPACITY]);
        if (!full) {
            return -ENOMEM;
        }
        if (Available() > 0) {
            memcpy(full.get(), storage + begin, Available());
        }
        end = Available();
        begin = 0;
        own = std::move(full);
        ownSize = CAPACITY;
        storage = own.get();
    }
    if (begin == end) {
        begin = end = 0;
    } else if (begin > 0) {
        // Only a frame cut by the end of the last read is moved: at most one frame's bytes.
        memmove(storage, storage + begin, end - begin);
        end -= begin;
        begin = 0;
    }
    ssize_t n = read(fd, storage + end, CAPACITY - end);
    if (n < 0) {
        return -errno;
    }
    end += static_cast<size_t>(n);
    return n;
}

ssize_t FrameBuffer::Take(int fd, void* dst, size_t len) {
    if (len == 0) {
        return 0;  // as read(2) of nothing
    }
    ssize_t filled = 1;
    if (Available() < len) {
        filled = Fill(fd);
    }
    size_t avail = Available();
    if (avail == 0) {
        return filled <= 0 ? filled : 0;
    }
    size_t n = avail < len ? avail : len;
    memcpy(dst, storage + begin, n);
    begin += n;
    consumed += n;
    return static_cast<ssize_t>(n);
}

void FrameBuffer::Release() {
    own.reset();
    ownSize = 0;
    storage = nullptr;
    begin = end = 0;
}

int32_t RecvFromFifo(int fd, FrameBuffer* buffer, void* buf, size_t len,
                     const std::string& remoteName) {
    if (buf == nullptr) {
        LOGE_R("Input addrress is nullptr\n");
        return -1;
    }
    ssize_t n = buffer != nullptr ? buffer->Take(fd, buf, len) : read(fd, buf, len);
    if (n < 0) {
        int err = buffer != nullptr ? static_cast<int>(-n) : errno;
        if (err == EAGAIN) {
            LOGI("The readFd(%d) read fail, errno = %d, remoteName: %s\n", fd, err,
                 remoteName.c_str());
        } else {
            LOGE_R("The readFd(%d) read fail, errno = %d, remoteName: %s\n", fd, err,
                   remoteName.c_str());
        }
        return -err;
    }
    if (n == 0) {
        return 0;
    }
    if (static_cast<size_t>(n) != len) {
        LOGE_R("The readFd(%d) read size %ld instead of %lu, errno = %d, remoteName: %s\n", fd,
               static_cast<long>(n), static_cast<unsigned long>(len), errno, remoteName.c_str());
        return -1;
    }
    return static_cast<int32_t>(n);
}
