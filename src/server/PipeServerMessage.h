// The packets written into a server's FIFO: a client's connect packet, the server's own stop.
#ifndef SABLE_SERVER_PIPE_SERVER_MESSAGE_H
#define SABLE_SERVER_PIPE_SERVER_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

enum PipeServerMsgType : uint32_t {
    PIPE_SERVER_MSG_CONNECT = 0,    // the client's name follows
    PIPE_SERVER_MSG_TERMINATE = 1,  // stop the server's monitor thread
};

// Layout (host byte order, no padding): magic, type, gid, pid, then, only with a name,
// nameSize and the name without its NUL.
class PipeServerMessage {
  public:
    static constexpr size_t HEADER_SIZE = 16;
    static constexpr uint32_t MAX_WRITE_NAME = 254;  // the reader accepts 1 to 110 bytes

    // Takes gid and pid from the calling process; builds nothing yet.
    PipeServerMessage(PipeServerMsgType type, const std::string& name);

    // Builds the packet; 0, -EINVAL (name or packet too long) or a negative copy error.
    int Init();
    const char* Data() const { return buffer.get(); }
    size_t Size() const { return size; }

  private:
    PipeServerMsgType type;
    size_t size;
    std::string name;
    uint32_t nameSize;
    size_t headerSize = HEADER_SIZE;
    std::unique_ptr<char[]> buffer;
    uint32_t gid;
    uint32_t pid;
};

#endif
