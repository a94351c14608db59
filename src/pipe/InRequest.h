// One received request; owns its payload until the last reference goes.
#ifndef SABLE_PIPE_IN_REQUEST_H
#define SABLE_PIPE_IN_REQUEST_H

#include "sable_comm.h"

class InMessage;

class InRequest {
  public:
    // Takes the payload array over from `msg`.
    explicit InRequest(InMessage& msg);
    virtual ~InRequest();
    InRequest(const InRequest&) = delete;
    InRequest& operator=(const InRequest&) = delete;

    SabloRequest& Record() { return request; }

  private:
    SabloRequest request;
};

#endif
