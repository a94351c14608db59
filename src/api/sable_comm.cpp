#include "sable_comm.h"

// Platforms that pin library threads to cores replace this; the library only calls it.
extern "C" void KorCoreSetaffinity() {}

extern "C" void DestroyResponse(SabloResponse* resp) {
    if (resp == nullptr || resp->data == nullptr) {
        return;
    }
    delete[] resp->data;
    resp->data = nullptr;
}
