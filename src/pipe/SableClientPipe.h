// The pipe a client opens towards a server process.
#ifndef SABLE_PIPE_SABLE_CLIENT_PIPE_H
#define SABLE_PIPE_SABLE_CLIENT_PIPE_H

#include <string>

#include "pipe/SablePipeImpl.h"

// Announces itself with a connect packet on the server's FIFO, then opens as an ordinary pipe.
// Its own name carries "_<pid>", so several processes of one program can talk to one server.
class SableClientPipe : public SablePipeImpl {
  public:
    SableClientPipe(const SabloAttr& attr, PipeObserver& observer);
    ~SableClientPipe() override = default;

    std::string MonitorPipeNameGen() const;
    int OpenServerMonitorPipe(const std::string& name) const;
    int SendMsgToServer(int serverMonitorFd);
    // Fails before writing anything when no server FIFO exists; -ENXIO when it has no reader.
    int TimedOpen(int timeoutMs) override;
};

#endif
