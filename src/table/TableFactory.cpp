#include "table/TableFactory.h"

#include "base/SingletonProtector.h"
#include "pool/CallbackPool.h"
#include "pool/WorkerPool.h"
#include "table/SableTable.h"

namespace {
constexpr unsigned int kWorkers = 1024;
constexpr unsigned int kUrgentWorkers = 20;
}  // namespace

std::shared_ptr<SableTable> TableFactory::GetInstance() {
    // Destroyed at exit in reverse order: the protector first, so a call made from a later
    // static destructor gets nothing instead of a dying table.
    static std::shared_ptr<WorkerPool> workerPool =
        std::make_shared<WorkerPool>(kWorkers, kUrgentWorkers);
    static std::shared_ptr<CallbackPool> callbackPool = std::make_shared<CallbackPool>(workerPool);
    static std::shared_ptr<SableTable> table = std::make_shared<SableTable>(callbackPool);
    static sable::SingletonProtector<SableTable> protector(table);
    return protector.Get();
}
