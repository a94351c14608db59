// The process's server: a well-known FIFO on which processes not known in advance connect.
#ifndef SABLE_SERVER_PIPE_SERVER_H
#define SABLE_SERVER_PIPE_SERVER_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "base/Mutex.h"
#include "server/ConnectPacketReader.h"
#include "pool/sable_comm_thread.h"
#include "sable_comm.h"

// One thread ("sable_comm_server") reads connect packets from the FIFO named after the server
// and opens a pipe back to each client, then tells the connect callback.
//
// Any process that may write the FIFO may write anything into it. Only Close (or a failed
// start) of this process stops the thread: it sets a flag known only in this process, then
// posts the terminate packet and wakes the thread through an eventfd of its own (so the stop
// never depends on what the FIFO holds or on room in it). A terminate packet read while no stop
// was asked for came from elsewhere: it is logged at error level and ignored. Malformed packets
// are skipped as ConnectPacketReader says. So Close (and SabloCfgFinishServer, and the exit of
// the process) returns as soon as the thread has finished the client it may be serving (opening
// its pipe does not wait for the client; the connect callback is the application's).
class PipeServer : public ConnectPacketReader {
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
    // the FIFO's lock (-EWOULDBLOCK) and leaves the first one serving. From the server's own
    // connect callback after it closed the server: -EBUSY (its thread is still the caller's).
    int Init(const SabloServerAttr& attr);
    // Stops the thread (stop flag, terminate packet on its own FIFO, eventfd wake-up) and
    // releases the lock and descriptors; the FIFO file stays. Blocks until the thread has ended
    // (it ends at once unless it is serving a client), except when called from the server's own
    // connect callback: the thread then ends when the callback returns.
    void Close();
    // Signal context: removes the server FIFO file.
    void ExceptionHandler();

    // On failure the caller stops what was started (StopLocked).
    int InitServer() REQUIRES(serverMutex);
    int PreparaFifoFile() REQUIRES(serverMutex);
    int PrepareEpoll() REQUIRES(serverMutex);
    void MonitorRoutine();
    void MonitorRoutineLinux();
    // Opens the pipe back to a client, then calls the connect callback. An exception from
    // either is logged and drops the client (its pipe closed); the server keeps serving.
    void CallSabloOpenAsync(const std::unique_ptr<char[]>& clientName, unsigned int gid,
                            int pid) const;
    int SendMsgToServer(int fd) const;
    SabloServerAttr GetServerAttr() const;
    std::string GetFifoNameForDFX() const;
    bool IsRunning() const { return running.load(); }

  protected:
    // One read of the FIFO once it is readable within `waitMs` (-1: no limit): the count,
    // -ETIMEDOUT, or 0 once a stop was asked for (or the wait failed for good).
    ssize_t Fill(uint8_t* dst, size_t room, int waitMs) override;
    const char* SourceName() const override { return serverName.c_str(); }

  private:
    int GetFifoName(std::string& out) const;
    // Asks the server thread to end: the flag, the terminate packet, the eventfd.
    void RequestStop() REQUIRES(serverMutex);
    bool OnServerThread() const;
    // Ends the server thread (joined with serverMutex released, unless it is the calling
    // thread) and releases the lock and descriptors. Returns with serverMutex held again.
    void StopLocked(sable::MutexLock& lock) REQUIRES(serverMutex);
    void ReleaseDescriptorsLocked() REQUIRES(serverMutex);

    // Guards the fields below and `stopping`. Never held while waiting for the server thread:
    // its connect callback may call Init, Close or the accessors, which take it. Taken before
    // the table's and the logger's locks.
    mutable sable::Mutex serverMutex;
    // Signalled when a stopping thread has joined the server thread.
    sable::CondVar stopped;
    // A thread is joining the server thread (with serverMutex released): only that thread
    // touches monitorThread meanwhile; others wait for `stopped`.
    bool stopping GUARDED_BY(serverMutex) = false;
    std::atomic<bool> running{false};
    // Set only by this process's RequestStop; cleared by the next start.
    std::atomic<bool> stopRequested{false};
    // The server thread's id while its routine runs (read lock-free to spot calls from it).
    std::atomic<std::thread::id> serverThreadId{};
    // Created and joined under the protocol of `stopping`.
    SableCommThread monitorThread;
    // Written only under serverMutex while no server thread runs; the server thread reads them.
    std::string fifoName;
    int readFd = -1;
    int writeFd = -1;
    std::function<void(int, SabloClientInfo)> connectCallback;
    int epollFd = -1;
    int stopFd = -1;  // eventfd in the epoll set: the stop's wake-up
    SabloServerAttr attr{};
    std::string serverName;  // the copy behind attr.selfName
};

#endif
