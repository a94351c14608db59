#include "pool/SableTask.h"

void SableTask::operator()() const {
    callback();
}

void OneShotTask::operator()() const {
    callback();
    observer.OnTaskFinished(*this);
}

void SyncTask::operator()() const {
    callback();
}
