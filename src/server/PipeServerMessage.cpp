#include "server/PipeServerMessage.h"

#include <errno.h>
#include <unistd.h>

#include <cstring>

#include "base/safe_c.h"
#include "log/NuxSyslog.h"
#include "pipe/MagicReceiver.h"

namespace {
constexpr int kNameMax = 255;
constexpr int kPipeBuf = 4096;

void PutU32(char* at, uint32_t value) {
    memcpy(at, &value, sizeof(value));
}
}  // namespace

PipeServerMessage::PipeServerMessage(PipeServerMsgType msgType, const std::string& clientName)
    : type(msgType),
      size(HEADER_SIZE + (clientName.empty() ? 0 : 4 + clientName.size())),
      name(clientName),
      nameSize(static_cast<uint32_t>(clientName.size())),
      gid(static_cast<uint32_t>(getgid())),
      pid(static_cast<uint32_t>(getpid())) {}

int PipeServerMessage::Init() {
    if (nameSize > MAX_WRITE_NAME) {
        LOGE("client name with size (%u) >= NAME_MAX(%d).\n", nameSize, kNameMax);
        return -EINVAL;
    }
    if (size > static_cast<size_t>(kPipeBuf - 1)) {
        LOGE("msg size(%zu) >= PIPE_BUF(%d).\n", size, kPipeBuf);
        return -EINVAL;
    }
    buffer.reset(new char[size]);
    PutU32(buffer.get(), MagicReceiver::MAGIC);
    PutU32(buffer.get() + 4, type);
    PutU32(buffer.get() + 8, gid);
    PutU32(buffer.get() + 12, pid);
    if (!name.empty()) {
        PutU32(buffer.get() + headerSize, nameSize);
        int ret =
            memcpy_s(buffer.get() + headerSize + 4, size - headerSize - 4, name.data(), nameSize);
        if (ret != 0) {
            LOGE("Memcpy_s payload %s fail, ret=%d.\n", name.c_str(), ret);
            return -ret;
        }
    }
    LOGI("Init client %s message sent to server success.\n", name.c_str());
    return 0;
}
