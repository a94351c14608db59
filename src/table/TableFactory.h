// The one way to reach the process-wide pipe table.
#ifndef SABLE_TABLE_TABLE_FACTORY_H
#define SABLE_TABLE_TABLE_FACTORY_H

#include <atomic>
#include <memory>

class SableTable;

class TableFactory {
  public:
    // Builds worker pool -> callback pool -> table once (thread-safe). Empty once the process
    // has begun destroying them at exit.
    //
    // At exit the table is destroyed on the exiting thread once calls still using it have
    // returned: after 50 ms it is disabled (waiting calls return) and they get 2 s more; only
    // a call that outlasts that destroys the table itself when it returns.
    static std::shared_ptr<SableTable> GetInstance();
    // False once GetInstance() answers empty for good (the process is exiting), and before the
    // table was first built; a weak reference to the table taken earlier must then not be used.
    // Never blocks: one atomic load.
    static bool IsAlive() { return alive.load(std::memory_order_acquire); }

    // For the table's own life-cycle only (see TableFactory.cpp).
    static void MarkAlive(bool isAlive);

  private:
    static std::atomic<bool> alive;
};

#endif
