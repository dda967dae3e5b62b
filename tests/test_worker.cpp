// The Worker loop on a Poco::Thread: repeated work() on the task's thread, which carries the
// task's thread name, pause that waits for the step in progress and holds further steps, cancel,
// onExit once, and failures that are logged once per episode while the loop goes on.
#include "support/LogCapture.h"

#include <ruvo/util/Worker.h>

#include <Poco/Message.h>
#include <Poco/Thread.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Upper bound on any wait for the worker thread: reached only when the loop is stuck.
constexpr auto kHangGuard = 30s;
constexpr long kJoinGuardMs = 30000;

// Gives the worker thread many chances to run (a buggy loop would call work() meanwhile).
void letOtherThreadsRun() {
    for (int i = 0; i < 2000; ++i) std::this_thread::yield();
}

// A Worker whose step `n` (from 0) runs `script(n)`; it records which threads ran its steps and
// its exit, and can hold a step at a gate until the test opens it.
class ScriptedWorker : public ruvo::util::Worker {
public:
    explicit ScriptedWorker(std::function<void(int)> script = {}) : Worker("scripted"), _script(std::move(script)) {}

    // Waits until `done()` holds (checked under the record lock); false when the loop is stuck.
    bool waitUntil(const std::function<bool()>& done) {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, kHangGuard, done);
    }
    // A record field read under the record lock.
    template <typename T>
    T read(const T& field) {
        std::lock_guard<std::mutex> lock(mutex);
        return field;
    }
    // Step `step` waits at the gate while the gate is closed; -1 holds no step.
    void setGate(int step, bool open) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            heldStep = step;
            gateOpen = open;
        }
        cond.notify_all();
    }

    std::mutex mutex;
    std::condition_variable cond;
    int started = 0;        // work() calls entered
    int finished = 0;       // work() calls returned or thrown
    int exits = 0;          // onExit() calls
    int heldStep = -1;      // step waiting at the gate, -1 for none
    bool gateOpen = false;  // the held step may go on
    std::set<Poco::Thread*> workThreads;
    Poco::Thread* exitThread = nullptr;
    std::string exitThreadName;  // the operating system's name of the thread that ran onExit()

protected:
    void work() override {
        int step = 0;
        {
            std::unique_lock<std::mutex> lock(mutex);
            step = started++;
            workThreads.insert(Poco::Thread::current());
            cond.notify_all();
            cond.wait(lock, [&] { return step != heldStep || gateOpen; });
        }
        struct Finish {
            ScriptedWorker& w;
            ~Finish() {
                std::lock_guard<std::mutex> lock(w.mutex);
                ++w.finished;
                w.cond.notify_all();
            }
        } finish{*this};
        if (_script) _script(step);
    }

    void onExit() override {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        std::lock_guard<std::mutex> lock(mutex);
        ++exits;
        exitThread = Poco::Thread::current();
        exitThreadName = name;
        cond.notify_all();
    }

private:
    std::function<void(int)> _script;
};

// Runs a worker on its own Poco::Thread; cancels and joins on scope exit.
class RunningWorker {
public:
    explicit RunningWorker(ScriptedWorker& worker) : _worker(worker) { thread.start(worker); }
    ~RunningWorker() {
        if (!thread.isRunning()) return;
        _worker.cancel();
        _worker.setGate(-1, true);
        if (!thread.tryJoin(kJoinGuardMs)) {
            ADD_FAILURE() << "the worker thread ignores cancel(); aborting rather than hanging";
            std::abort();
        }
    }
    void join() { thread.join(kJoinGuardMs); }

    Poco::Thread thread{"worker-under-test"};

private:
    ScriptedWorker& _worker;
};

// Cancelled before it runs, a worker exits at once (run on a thread that Poco did not start, the
// task names the thread after itself). After reset() it repeats work on the task's thread and exits
// once there, under the Poco thread's name cut to the operating system's 15 characters.
TEST(WorkerLoop, RepeatsWorkOnTheTaskThreadAndExitsOnceThereUnderItsName) {
    ScriptedWorker worker;
    worker.cancel();
    worker.run();  // on this thread: returns without a step
    EXPECT_EQ(worker.started, 0);
    EXPECT_EQ(worker.exits, 1);
    EXPECT_EQ(worker.exitThreadName, "scripted");
    worker.reset();
    EXPECT_FALSE(worker.isCancelled());
    RunningWorker running(worker);
    ASSERT_TRUE(worker.waitUntil([&] { return worker.finished >= 5; }));
    EXPECT_TRUE(worker.isRunning());
    worker.cancel();
    running.join();
    EXPECT_FALSE(worker.isRunning());
    EXPECT_EQ(worker.workThreads, std::set<Poco::Thread*>{&running.thread});
    EXPECT_EQ(worker.exits, 2);
    EXPECT_EQ(worker.exitThread, &running.thread);
    EXPECT_EQ(worker.exitThreadName, "worker-under-te");
}

// Then cancel() during a held step: the step ends and no other starts.
TEST(WorkerLoop, PauseWaitsForTheStepInProgressAndHoldsFurtherStepsAndCancelEndsTheLoopAfterTheStep) {
    ScriptedWorker worker;
    worker.setGate(2, false);
    RunningWorker running(worker);
    ASSERT_TRUE(worker.waitUntil([&] { return worker.started == 3; }));

    int finishedWhenPauseReturned = -1;
    std::thread pauser([&] {
        worker.pause();
        finishedWhenPauseReturned = worker.read(worker.finished);
    });
    while (!worker.isPaused()) std::this_thread::yield();
    letOtherThreadsRun();
    worker.setGate(-1, true);
    pauser.join();
    EXPECT_EQ(finishedWhenPauseReturned, 3) << "pause() returned while step 2 was still running";
    letOtherThreadsRun();
    EXPECT_EQ(worker.read(worker.started), 3) << "a step started while paused";
    worker.setGate(6, false);
    worker.unpause();
    ASSERT_TRUE(worker.waitUntil([&] { return worker.started == 7; })) << "unpause() did not resume the loop";
    worker.cancel();
    worker.setGate(-1, true);
    running.join();
    EXPECT_EQ(worker.started, 7);
    EXPECT_EQ(worker.finished, 7);
    EXPECT_EQ(worker.exits, 1);
}

TEST(WorkerLoop, PausedBeforeStartRunsNothingUntilUnpausedAndCancelWakesAPausedLoop) {
    ScriptedWorker worker;
    worker.pause();  // not running: must return at once
    RunningWorker running(worker);
    while (!worker.isRunning()) std::this_thread::yield();
    letOtherThreadsRun();
    EXPECT_EQ(worker.read(worker.started), 0);
    worker.unpause();
    ASSERT_TRUE(worker.waitUntil([&] { return worker.finished >= 1; }));
    worker.pause();
    const int started = worker.read(worker.started);
    worker.cancel();
    running.join();
    EXPECT_EQ(worker.started, started);
    EXPECT_EQ(worker.exits, 1);
}

TEST(WorkerFailures, EachFailureEpisodeIsLoggedOnceAndTheLoopGoesOn) {
    ruvo::test::LogCapture errors("Util.Worker", Poco::Message::PRIO_ERROR);

    // Steps 0-2 and 7 fail alike, 3-4 with another text, 5 with a non-standard exception.
    ScriptedWorker worker([](int step) {
        if (step <= 2 || step == 7) throw std::runtime_error("sensor gone");
        if (step <= 4) throw std::runtime_error("queue full");
        if (step == 5) throw 42;
    });
    worker.setBackoff(1ms, 2ms);
    {
        RunningWorker running(worker);
        EXPECT_TRUE(worker.waitUntil([&] { return worker.finished >= 10; }));
        worker.cancel();
        running.join();
    }

    const std::vector<std::string> expected = {"scripted: sensor gone", "scripted: queue full",
                                               "scripted: unknown exception", "scripted: sensor gone"};
    EXPECT_EQ(errors.lines(), expected);
}

}  // namespace
