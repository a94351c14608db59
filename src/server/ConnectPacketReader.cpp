#include "server/ConnectPacketReader.h"

#include <errno.h>

#include <cstring>
#include <new>

#include "base/safe_c.h"
#include "log/NuxSyslog.h"
#include "server/PipeServerMessage.h"

namespace {

template <typename T>
int32_t RecvField(MagicReceiver& rx, T& field) {
    return rx.Recv(&field, sizeof(field));
}

}  // namespace

ConnectPacketReader::ConnectPacketReader() {
    memset(buffer, 0, sizeof(buffer));
}

void ConnectPacketReader::Reset() {
    begin = end = packetStart = 0;
}

int32_t ConnectPacketReader::Recv(void* buf, size_t len) {
    if (buf == nullptr) {
        return -EINVAL;
    }
    ssize_t filled = 1;
    while (end - begin < len) {
        if (end == CAPACITY) {
            // Keep only the packet being read (at most a header and a name).
            memmove(buffer, buffer + packetStart, end - packetStart);
            end -= packetStart;
            begin -= packetStart;
            packetStart = 0;
        }
        // Between packets wait as long as it takes; inside one the rest is there or never comes.
        filled = Fill(buffer + end, CAPACITY - end, begin == packetStart ? -1 : 0);
        if (filled <= 0) {
            break;
        }
        end += static_cast<size_t>(filled);
    }
    const size_t n = end - begin < len ? end - begin : len;
    if (n == 0) {
        return static_cast<int32_t>(filled);
    }
    memcpy(buf, buffer + begin, n);
    begin += n;
    return static_cast<int32_t>(n);
}

void ConnectPacketReader::Resync() {
    if (end > packetStart) {
        begin = packetStart + 1;
    }
}

ConnectPacketReader::Result ConnectPacketReader::Next(Packet& out) {
    for (;;) {
        packetStart = begin;
        MagicResult magic = RecvMagic();
        if (magic == MAGIC_PEER_CLOSED) {
            LOGI("Read unfinished\n");
            return Result::END;
        }
        if (magic != MAGIC_OK) {
            LOGI("Read return %d.\n", magic);
            Resync();
            continue;
        }
        uint32_t type = 0;
        int32_t ret = RecvField(*this, type);
        if (ret != static_cast<int32_t>(sizeof(type)) || type > PIPE_SERVER_MSG_TERMINATE) {
            LOGE_R("Read type failed, ret=%d, type=%d, errno=%d.\n", ret, static_cast<int>(type),
                   errno);
            Resync();
            continue;
        }
        out.type = type;
        out.name.reset();
        if (type == PIPE_SERVER_MSG_TERMINATE) {
            return Result::PACKET;
        }
        uint32_t gid = 0;
        ret = RecvField(*this, gid);
        if (ret != static_cast<int32_t>(sizeof(gid))) {
            LOGE_R("Read client gid failed, ret=%d, recv gid=%u, errno=%d.\n", ret, gid, errno);
            Resync();
            continue;
        }
        int32_t pid = 0;
        ret = RecvField(*this, pid);
        if (ret != static_cast<int32_t>(sizeof(pid))) {
            LOGE_R("Read client pid failed, ret=%d, recv pid=%d, errno=%d.\n", ret, pid, errno);
            Resync();
            continue;
        }
        uint32_t nameSize = 0;
        ret = RecvField(*this, nameSize);
        if (ret != static_cast<int32_t>(sizeof(nameSize)) || nameSize < 1 ||
            nameSize > MAX_READ_NAME) {
            LOGE_R("Read connect packet data size failed, ret=%d, size=%u bytes, errno=%d.\n", ret,
                   nameSize, errno);
            Resync();
            continue;
        }
        LOGI("server get client name size: %u\n", nameSize);
        std::unique_ptr<char[]> name(new (std::nothrow) char[nameSize + 1]);
        if (!name || memset_s(name.get(), nameSize + 1, 0, nameSize + 1) != 0) {
            LOGE_R("Memset client name buffer error.\n");
            Resync();
            continue;
        }
        ret = Recv(name.get(), nameSize);
        if (ret == static_cast<int32_t>(nameSize) && strnlen(name.get(), nameSize) != nameSize) {
            ret = static_cast<int32_t>(strnlen(name.get(), nameSize));  // a NUL inside the name
        }
        if (ret != static_cast<int32_t>(nameSize)) {
            LOGE_R(
                "Read connect packet data failed, ret=%d, clientName=%s,required size=%u "
                "bytes, errno=%d.\n",
                ret, name.get(), nameSize, errno);
            Resync();
            continue;
        }
        name[nameSize] = '\0';
        LOGI("Server %s get client name: %s.\n", SourceName(), name.get());
        out.gid = gid;
        out.pid = pid;
        out.name = std::move(name);
        return Result::PACKET;
    }
}
