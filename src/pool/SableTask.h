// The units of work a Worker queues and runs.
#ifndef SABLE_POOL_SABLE_TASK_H
#define SABLE_POOL_SABLE_TASK_H

#include <functional>

class Worker;
class SableTask;

// Told when a task that borrowed a worker has run, so the worker can be given back.
class SableTaskObserver {
  public:
    virtual ~SableTaskObserver() = default;
    // Called on the worker thread right after the callback, before the worker takes its next
    // task.
    virtual void OnTaskFinished(const SableTask& task) = 0;
};

// A callback to run once on a worker thread. Immutable after construction; shared between the
// dropping thread and the worker through std::shared_ptr<const SableTask>.
class SableTask {
  public:
    explicit SableTask(std::function<void()> fn) : callback(std::move(fn)) {}
    virtual ~SableTask() = default;
    SableTask(const SableTask&) = delete;
    SableTask& operator=(const SableTask&) = delete;

    // Runs the callback; an empty one throws std::bad_function_call (the drop functions never
    // queue one).
    virtual void operator()() const;
    // The worker to give back after the run, or null when the task does not own its worker.
    virtual const Worker* GetExecutor() const { return nullptr; }

  protected:
    std::function<void()> callback;
};

// For a worker borrowed for this one task: after the callback the observer gets the task back
// and returns `executor` to its pool. The observer must outlive the task's run.
class OneShotTask : public SableTask {
  public:
    OneShotTask(std::function<void()> fn, SableTaskObserver& taskObserver, const Worker& worker)
        : SableTask(std::move(fn)), observer(taskObserver), executor(worker) {}

    void operator()() const override;
    const Worker* GetExecutor() const override { return &executor; }

  private:
    SableTaskObserver& observer;
    const Worker& executor;
};

// For a worker bound to a name: the worker stays bound after the run.
class SyncTask : public SableTask {
  public:
    explicit SyncTask(std::function<void()> fn) : SableTask(std::move(fn)) {}

    void operator()() const override;
};

#endif
