#pragma once

#include "TwoThreads.h"

#include <chrono>
#include <string>

// What is done in several ways, written once. The names that objects need for it are those of the standard library, so
// that most peers fit as they are.

constexpr std::chrono::seconds second{1};

inline constexpr auto lockAndUnlock = [](auto& mutex) {
    mutex.lock();
    mutex.unlock();
};

inline constexpr auto tryAndUnlock = [](auto& mutex) {
    Expect(mutex.try_lock());
    mutex.unlock();
};

inline constexpr auto timedLockAndUnlock = [](auto& mutex) {
    Expect(mutex.try_lock_for(second));
    mutex.unlock();
};

template <typename Mutex, typename RecursiveMutex, typename TimedMutex>
void RegisterMutexes(const std::string& way) {
    RegisterOn<Mutex>("mutex/lock and unlock/" + way, lockAndUnlock);
    RegisterOn<Mutex>("mutex/try and unlock/" + way, tryAndUnlock);
    RegisterOn<TimedMutex>("mutex/timed lock and unlock/" + way, timedLockAndUnlock);
    RegisterOn<RecursiveMutex>("mutex/recursive lock and unlock/" + way, lockAndUnlock);
    RegisterHeld<Mutex>("mutex/try a held one/" + way, [](auto& mutex) { Expect(!mutex.try_lock()); });
    RegisterHeld<TimedMutex>("mutex/timed lock of a held one/" + way,
                             [](auto& mutex) { Expect(!mutex.try_lock_for(second * 0)); });
    RegisterContended<Mutex>("mutex/contended lock and unlock", way, lockAndUnlock);
}

template <typename Lock>
void RegisterReadWriteLocks(const std::string& way) {
    RegisterOn<Lock>("read-write lock/read/" + way, [](auto& lock) {
        lock.lock_shared();
        lock.unlock_shared();
    });
    RegisterOn<Lock>("read-write lock/write/" + way, lockAndUnlock);
    RegisterOn<Lock>("read-write lock/try to read/" + way, [](auto& lock) {
        Expect(lock.try_lock_shared());
        lock.unlock_shared();
    });
    RegisterOn<Lock>("read-write lock/try to write/" + way, tryAndUnlock);
}

template <typename Lock>
void RegisterTimedReadWriteLocks(const std::string& way) {
    RegisterOn<Lock>("read-write lock/timed read/" + way, [](auto& lock) {
        Expect(lock.try_lock_shared_for(second));
        lock.unlock_shared();
    });
    RegisterOn<Lock>("read-write lock/timed write/" + way, timedLockAndUnlock);
}

/// Two semaphores, one for each direction.
template <typename Semaphore>
struct SemaphoreChannel {
    void Send(int side) { semaphores[side].post(); }
    void Receive(int side) { semaphores[1 - side].wait(); }

    Semaphore semaphores[2];
};

template <typename Semaphore>
void RegisterSemaphores(const std::string& way) {
    RegisterOn<Semaphore>("semaphore/post and wait/" + way, [](auto& semaphore) {
        semaphore.post();
        semaphore.wait();
    });
    RegisterOn<Semaphore>("semaphore/post and try/" + way, [](auto& semaphore) {
        semaphore.post();
        Expect(semaphore.try_wait());
    });
    RegisterOn<Semaphore>("semaphore/post and timed wait/" + way, [](auto& semaphore) {
        semaphore.post();
        Expect(semaphore.wait_for(second));
    });
    RegisterPingPong("semaphore/ping-pong", way, [] { return SemaphoreChannel<Semaphore>(); });
}

/// A mutex with its condition variable, on which the threads wait for their turn. A monitor has `Lock`, `Unlock`,
/// `Notify`, `Wait` and `WaitForNothing`, which returns whether it was notified before the time ran out at once.
template <typename Monitor>
struct MonitorChannel {
    void Send(int side) {
        monitor.Lock();
        turn = 1 - side;
        monitor.Notify();
        monitor.Unlock();
    }
    void Receive(int side) {
        monitor.Lock();
        while (turn != side) {
            monitor.Wait();
        }
        monitor.Unlock();
    }

    Monitor monitor;
    int turn = 0;
};

template <typename Monitor>
void RegisterConditionVariables(const std::string& way) {
    RegisterOn<Monitor>("condition variable/notify nobody/" + way, [](auto& monitor) { monitor.Notify(); });
    RegisterRun("condition variable/expired wait/" + way, [](benchmark::State& state) {
        Monitor monitor;
        monitor.Lock();
        for (auto _ : state) {
            Expect(!monitor.WaitForNothing());
        }
        monitor.Unlock();
    });
    RegisterPingPong("condition variable/ping-pong", way, [] { return MonitorChannel<Monitor>(); });
}

/// A monitor of the standard library's parts, or of such as are built like those.
template <typename Mutex, typename Condition, typename UniqueLock, typename Adopt, typename Duration>
struct StandardMonitor {
    void Lock() { mutex.lock(); }
    void Unlock() { mutex.unlock(); }
    void Notify() { condition.notify_one(); }
    void Wait() {
        UniqueLock held(mutex, Adopt{});
        condition.wait(held);
        held.release();
    }
    bool WaitForNothing() {
        UniqueLock held(mutex, Adopt{});
        const auto status = condition.wait_for(held, Duration::zero());
        held.release();
        return status != decltype(status)::timeout;
    }

    Mutex mutex;
    Condition condition;
};

/// Queues of messages, one for each direction.
template <typename Queue>
struct QueueChannel {
    void Send(int side) { queues[side].Send(); }
    void Receive(int side) { queues[1 - side].Receive(); }

    Queue queues[2];
};

template <typename Queue>
void RegisterQueues(const std::string& way) {
    RegisterOn<Queue>("message queue/send and receive 64 bytes/" + way, [](auto& queue) {
        queue.Send();
        queue.Receive();
    });
    RegisterOn<Queue>("message queue/timed send and receive/" + way, [](auto& queue) {
        queue.SendWithin(second);
        queue.ReceiveWithin(second);
    });
    RegisterPingPong("message queue/ping-pong", way, [] { return QueueChannel<Queue>(); });
}
