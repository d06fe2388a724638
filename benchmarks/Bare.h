#pragma once

#include "Expect.h"

#include <pthread.h>
#include <semaphore.h>
#include <time.h>

#include <cerrno>
#include <chrono>

// The bare calls, on objects with the attributes that the library gives its own.

/// A point in time, as the timed calls take it.
inline timespec In(std::chrono::seconds duration, clockid_t clock = CLOCK_REALTIME) {
    timespec deadline;
    Expect(clock_gettime(clock, &deadline) == 0);
    deadline.tv_sec += static_cast<time_t>(duration.count());
    return deadline;
}

struct BareMutex {
    explicit BareMutex(int type = PTHREAD_MUTEX_NORMAL) {
        pthread_mutexattr_t attributes;
        Expect(pthread_mutexattr_init(&attributes) == 0);
        Expect(pthread_mutexattr_settype(&attributes, type) == 0);
        Expect(pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_PRIVATE) == 0);
        Expect(pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT) == 0);
        Expect(pthread_mutex_init(&mutex, &attributes) == 0);
        Expect(pthread_mutexattr_destroy(&attributes) == 0);
    }
    ~BareMutex() { pthread_mutex_destroy(&mutex); }
    BareMutex(const BareMutex&) = delete;
    BareMutex& operator=(const BareMutex&) = delete;

    void lock() { Expect(pthread_mutex_lock(&mutex) == 0); }
    void unlock() { Expect(pthread_mutex_unlock(&mutex) == 0); }
    bool try_lock() {
        const int code = pthread_mutex_trylock(&mutex);
        Expect(code == 0 || code == EBUSY);
        return code == 0;
    }
    bool try_lock_for(std::chrono::seconds duration) {
        const timespec deadline = In(duration);
        const int code = pthread_mutex_timedlock(&mutex, &deadline);
        Expect(code == 0 || code == ETIMEDOUT);
        return code == 0;
    }

    pthread_mutex_t mutex;
};

struct BareLock {
    BareLock() { Expect(pthread_rwlock_init(&rwlock, nullptr) == 0); }
    ~BareLock() { pthread_rwlock_destroy(&rwlock); }
    BareLock(const BareLock&) = delete;
    BareLock& operator=(const BareLock&) = delete;

    void lock() { Expect(pthread_rwlock_wrlock(&rwlock) == 0); }
    void unlock() { Expect(pthread_rwlock_unlock(&rwlock) == 0); }
    bool try_lock() { return pthread_rwlock_trywrlock(&rwlock) == 0; }
    bool try_lock_for(std::chrono::seconds duration) {
        const timespec deadline = In(duration);
        return pthread_rwlock_timedwrlock(&rwlock, &deadline) == 0;
    }
    void lock_shared() { Expect(pthread_rwlock_rdlock(&rwlock) == 0); }
    void unlock_shared() { unlock(); }
    bool try_lock_shared() { return pthread_rwlock_tryrdlock(&rwlock) == 0; }
    bool try_lock_shared_for(std::chrono::seconds duration) {
        const timespec deadline = In(duration);
        return pthread_rwlock_timedrdlock(&rwlock, &deadline) == 0;
    }

    pthread_rwlock_t rwlock;
};

struct BareCondition {
    BareCondition() {
        pthread_condattr_t attributes;
        Expect(pthread_condattr_init(&attributes) == 0);
        Expect(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC) == 0);
        Expect(pthread_condattr_setpshared(&attributes, PTHREAD_PROCESS_PRIVATE) == 0);
        Expect(pthread_cond_init(&condition, &attributes) == 0);
        Expect(pthread_condattr_destroy(&attributes) == 0);
    }
    ~BareCondition() { pthread_cond_destroy(&condition); }
    BareCondition(const BareCondition&) = delete;
    BareCondition& operator=(const BareCondition&) = delete;

    pthread_cond_t condition;
};

struct BareMonitor {
    void Lock() { mutex.lock(); }
    void Unlock() { mutex.unlock(); }
    void Notify() { Expect(pthread_cond_signal(&condition.condition) == 0); }
    void Wait() { Expect(pthread_cond_wait(&condition.condition, &mutex.mutex) == 0); }
    bool WaitForNothing() {
        const timespec deadline = In(std::chrono::seconds(0), CLOCK_MONOTONIC);
        const int code = pthread_cond_timedwait(&condition.condition, &mutex.mutex, &deadline);
        Expect(code == 0 || code == ETIMEDOUT);
        return code == 0;
    }

    BareMutex mutex;
    BareCondition condition;
};

struct BareSemaphore {
    BareSemaphore() { Expect(sem_init(&semaphore, 0, 0) == 0); }
    ~BareSemaphore() { sem_destroy(&semaphore); }
    BareSemaphore(const BareSemaphore&) = delete;
    BareSemaphore& operator=(const BareSemaphore&) = delete;

    void post() { Expect(sem_post(&semaphore) == 0); }
    void wait() { Expect(sem_wait(&semaphore) == 0); }
    bool try_wait() {
        const int result = sem_trywait(&semaphore);
        Expect(result == 0 || errno == EAGAIN);
        return result == 0;
    }
    bool wait_for(std::chrono::seconds duration) {
        const timespec deadline = In(duration);
        const int result = sem_timedwait(&semaphore, &deadline);
        Expect(result == 0 || errno == ETIMEDOUT);
        return result == 0;
    }

    sem_t semaphore;
};
