#include "table/TableFactory.h"

#include <chrono>
#include <thread>

#include "base/SingletonProtector.h"
#include "pool/CallbackPool.h"
#include "pool/WorkerPool.h"
#include "table/SableTable.h"

namespace {
constexpr unsigned int kWorkers = 1024;
constexpr unsigned int kUrgentWorkers = 20;
// How long the exit sequence lets running calls finish with the table before disabling it (the
// same grace as the table's destructor gives), and how long it then waits for them.
constexpr std::chrono::milliseconds kExitGrace{50};
constexpr std::chrono::milliseconds kExitWait{2000};

// The factory's reference to the table. At exit a call that got the table before the protector
// died keeps it to its end, and would then destroy it on its own thread, a library worker among
// others (a request callback closing its pipe). That cannot work: the worker's task still uses
// its pipe, whose observer is the table, and the table's destructor releases the pools, which
// cannot destroy the worker that runs it. So the exit sequence waits (bounded) until its
// reference is the only one: after a short grace it disables the table, which closes the pipes
// and so releases calls waiting for a peer, and waits for them to return. The table, and after
// it the pools, are then destroyed on the exiting thread.
class TableHolder {
  public:
    explicit TableHolder(std::shared_ptr<SableTable> held) : table(std::move(held)) {}
    ~TableHolder() {
        if (!WaitUntilSoleOwner(kExitGrace)) {
            table->DisableSableTable();
            WaitUntilSoleOwner(kExitWait);
        }
        table.reset();
    }
    TableHolder(const TableHolder&) = delete;
    TableHolder& operator=(const TableHolder&) = delete;

    const std::shared_ptr<SableTable>& Get() const { return table; }

  private:
    // No new reference can appear: the protector, destroyed first, hands out nothing any more.
    bool WaitUntilSoleOwner(std::chrono::milliseconds limit) const {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (table.use_count() > 1) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    std::shared_ptr<SableTable> table;
};

}  // namespace

namespace {

// Mirrors the protector's life in TableFactory::alive, which the send path reads on every
// call without going through the function-local statics below.
struct AliveMark {
    AliveMark() { TableFactory::MarkAlive(true); }
    ~AliveMark() { TableFactory::MarkAlive(false); }
};

sable::SingletonProtector<SableTable>& Protector() {
    // Destroyed at exit in reverse order: the protector first, so a call made from a later
    // static destructor gets nothing instead of a dying table.
    static std::shared_ptr<WorkerPool> workerPool =
        std::make_shared<WorkerPool>(kWorkers, kUrgentWorkers);
    static std::shared_ptr<CallbackPool> callbackPool = std::make_shared<CallbackPool>(workerPool);
    static TableHolder table(std::make_shared<SableTable>(callbackPool));
    static sable::SingletonProtector<SableTable> protector(table.Get());
    // Made after the protector, so destroyed before it: IsAlive turns false no later than the
    // protector stops handing the table out.
    static AliveMark mark;
    return protector;
}

}  // namespace

std::shared_ptr<SableTable> TableFactory::GetInstance() {
    return Protector().Get();
}

std::atomic<bool> TableFactory::alive{false};

void TableFactory::MarkAlive(bool isAlive) {
    alive.store(isAlive, std::memory_order_release);
}
