#include "pipe/InRequest.h"

#include "pipe/Message.h"

InRequest::InRequest(InMessage& msg)
    : request{msg.id, reinterpret_cast<uint8_t*>(msg.ReleaseData()), msg.payloadLen} {}

InRequest::~InRequest() {
    delete[] request.data;
}
