#pragma once

#include "TwoThreads.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

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

/// The descriptors of two sockets that are connected to each other; only local ones and IPv4.
using SocketPair = std::array<int, 2>;
SocketPair ConnectedSockets(int domain, int type);

/// Two sockets, of what each way makes of a descriptor, and messages of a length for each direction, which are sent and
/// received in pieces. A socket has `Send` and `Receive`, which return a count, and owns its descriptor.
template <typename Socket>
class SocketChannel {
public:
    static constexpr std::size_t piece = 65536;

    SocketChannel(int domain, int type, std::size_t lengthThere, std::size_t lengthBack)
        : SocketChannel(ConnectedSockets(domain, type), lengthThere, lengthBack) {}

    void Send(int side) {
        for (std::size_t sent = 0; sent < lengths[side]; sent += piece) {
            const std::size_t length = std::min(lengths[side], piece);
            Expect(static_cast<std::size_t>(sockets[side].Send(buffers[side].data(), length)) == length);
        }
    }
    void Receive(int side) {
        std::size_t received = 0;
        while (received < lengths[1 - side]) {
            const auto count = sockets[side].Receive(buffers[side].data(), piece);
            Expect(count > 0);
            received += static_cast<std::size_t>(count);
        }
    }

private:
    SocketChannel(const SocketPair& pair, std::size_t lengthThere, std::size_t lengthBack)
        : sockets{Socket(pair[0]), Socket(pair[1])}, lengths{lengthThere, lengthBack} {}

    Socket sockets[2];
    std::size_t lengths[2];
    std::vector<char> buffers[2] = {std::vector<char>(piece), std::vector<char>(piece)};
};

/// All transfers between two threads over stream sockets, `StreamSocket`, and datagram sockets, `DatagramSocket`.
template <typename StreamSocket, typename DatagramSocket>
void RegisterTransfers(const std::string& way) {
    constexpr std::size_t message = 64;
    constexpr std::size_t much = std::size_t{1} << 20U;
    const auto stream = [](int domain, std::size_t lengthThere, std::size_t lengthBack) {
        return [=] { return SocketChannel<StreamSocket>(domain, SOCK_STREAM, lengthThere, lengthBack); };
    };
    const auto datagram = [](int domain) {
        return [=] { return SocketChannel<DatagramSocket>(domain, SOCK_DGRAM, message, message); };
    };
    RegisterPingPong("socket/TCP ping-pong", way, stream(AF_INET, message, message));
    RegisterPingPong("socket/UDP ping-pong", way, datagram(AF_INET));
    RegisterPingPong("socket/local stream ping-pong", way, stream(AF_UNIX, message, message));
    RegisterPingPong("socket/local datagram ping-pong", way, datagram(AF_UNIX));
    // Answered by a byte when all has arrived.
    RegisterPingPong("socket/TCP 1 MiB", way, stream(AF_INET, much, 1));
    RegisterPingPong("socket/local stream 1 MiB", way, stream(AF_UNIX, much, 1));
}

/// One datagram after the other from one socket to another, in one thread.
template <typename Socket>
void RegisterSendAndReceive(const std::string& way) {
    RegisterRun("socket/send and receive 64 bytes/" + way, [](benchmark::State& state) {
        SocketChannel<Socket> channel(AF_INET, SOCK_DGRAM, 64, 64);
        for (auto _ : state) {
            channel.Send(0);
            channel.Receive(1);
        }
    });
}

/// `look(socket)` at a socket at which a message is waiting.
template <typename Socket, typename Look>
void RegisterReady(const std::string& name, Look look) {
    RegisterRun(name, [look](benchmark::State& state) {
        const SocketPair pair = ConnectedSockets(AF_INET, SOCK_DGRAM);
        Socket sender(pair[0]);
        Socket receiver(pair[1]);
        Expect(sender.Send("x", 1) == 1);
        for (auto _ : state) {
            look(receiver);
        }
    });
}
