// The process's server: a well-known FIFO on which processes not known in advance connect.
#ifndef SABLE_SERVER_PIPE_SERVER_H
#define SABLE_SERVER_PIPE_SERVER_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "base/Mutex.h"
#include "pipe/MagicReceiver.h"
#include "pool/sable_comm_thread.h"
#include "sable_comm.h"

// One thread ("sable_comm_server") reads connect packets from the FIFO named after the server
// and opens a pipe back to each client, then tells the connect callback.
class PipeServer : public MagicReceiver {
public:
    // Open time-out of a pipe back to a client (outside the long run mode).
    static constexpr int CLIENT_OPEN_TIMEOUT_MS = 5000;

    // The process-wide server; empty once the process is exiting.
    static std::shared_ptr<PipeServer> GetInstance();

    PipeServer() = default;
    ~PipeServer() override;
    PipeServer(const PipeServer&) = delete;
    PipeServer& operator=(const PipeServer&) = delete;

    // Starts serving. -EEXIST while running; a second server process of the same name fails at
    // the FIFO's lock (-EWOULDBLOCK) and leaves the first one serving.
    int Init(const SabloServerAttr& attr);
    // Stops the thread through a terminate packet on its own FIFO and releases the lock and
    // descriptors; the FIFO file stays. Blocks until the thread has ended.
    void Close();
    // Signal context: removes the server FIFO file.
    void ExceptionHandler();

    int InitServer() REQUIRES(serverMutex);
    int PreparaFifoFile() REQUIRES(serverMutex);
    int PrepareEpoll() REQUIRES(serverMutex);
    void MonitorRoutine();
    void MonitorRoutineLinux();
    // Reads up to `len` bytes once the FIFO is readable; the count or a negative errno.
    int Recv(void* buf, size_t len) override;
    void CallSabloOpenAsync(const std::unique_ptr<char[]>& clientName, unsigned int gid,
                            int pid) const;
    int SendMsgToServer(int fd) const;
    SabloServerAttr GetServerAttr() const;
    std::string GetFifoNameForDFX() const;
    bool IsRunning() const { return running.load(); }

private:
    int GetFifoName(std::string& out) const;
    void ReleaseLocked() REQUIRES(serverMutex);

    // Serialises Init and Close. Never held by the server thread.
    sable::Mutex serverMutex;
    std::atomic<bool> running{false};
    SableCommThread monitorThread;
    // Written only under serverMutex while the thread is not running.
    std::string fifoName;
    int readFd = -1;
    int writeFd = -1;
    std::function<void(int, SabloClientInfo)> connectCallback;
    int epollFd = -1;
    SabloServerAttr attr{};
    std::string serverName;  // the copy behind attr.selfName
};

#endif
