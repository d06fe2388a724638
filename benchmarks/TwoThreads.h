#pragma once

#include "Benchmark.h"
#include "Expect.h"

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// Where two threads run.
struct Processors {
    std::string name;
    int first;
    int second;
};

/// Once both on one processor, which shows what the code costs, and once on two, which shows what the machine's wake-up
/// costs; the latter only where the process may use two.
std::vector<Processors> OneAndTwoProcessors();

/// Binds the calling thread to a processor for as long as it lives.
class Bound {
public:
    explicit Bound(int processor) {
        Expect(pthread_getaffinity_np(pthread_self(), sizeof before, &before) == 0);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(static_cast<unsigned int>(processor), &one);
        Expect(pthread_setaffinity_np(pthread_self(), sizeof one, &one) == 0);
    }
    ~Bound() { pthread_setaffinity_np(pthread_self(), sizeof before, &before); }
    Bound(const Bound&) = delete;
    Bound& operator=(const Bound&) = delete;

private:
    cpu_set_t before{};
};

/// The other of two threads. It does `begin` before the constructor returns, and then `work`, which has to see to its
/// own end; the destructor waits for that.
class Peer {
public:
    template <typename Begin, typename Work>
    Peer(int processor, Begin begin, Work work) {
        std::promise<void> begun;
        thread = std::thread([&, begin, work] {
            const Bound bound(processor);
            begin();
            begun.set_value();
            work();
        });
        begun.get_future().wait();
    }
    ~Peer() { thread.join(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

private:
    std::thread thread;
};

/// Two threads hand something to and fro. A channel has two sides, 0 and 1: `Send(side)` sends to the other one,
/// `Receive(side)` waits for what that has sent. `make()` makes it.
template <typename Make>
void RegisterPingPong(const std::string& work, const std::string& way, Make make) {
    for (const Processors& processors : OneAndTwoProcessors()) {
        RegisterRun(work + processors.name + "/" + way, [processors, make](benchmark::State& state) {
            const Bound bound(processors.first);
            auto channel = make();
            std::atomic<bool> ends{false};
            const Peer peer(
                processors.second, [] {},
                [&] {
                    for (;;) {
                        channel.Receive(1);
                        if (ends) {
                            return;
                        }
                        channel.Send(1);
                    }
                });
            for (auto _ : state) {
                channel.Send(0);
                channel.Receive(0);
            }
            ends = true;
            channel.Send(0);
        });
    }
}

/// `work()` while this thread is bound to a processor.
template <typename Work>
void RegisterBound(const std::string& name, int processor, Work work) {
    RegisterRun(name, [processor, work](benchmark::State& state) {
        const Bound bound(processor);
        for (auto _ : state) {
            work();
        }
    });
}

/// `startAndJoin` does what other libraries' users do: it starts a thread that names itself, and joins it. That binds
/// nothing, so the new thread runs where this one does.
template <typename StartAndJoin>
void RegisterPlainThread(const std::string& way, StartAndJoin startAndJoin) {
    const Processors one = OneAndTwoProcessors().front();
    RegisterBound("thread/start and join" + one.name + "/" + way, one.first, startAndJoin);
}

/// Two threads do `work(object)` at the same time; one of them is measured.
template <typename Object, typename Work>
void RegisterContended(const std::string& name, const std::string& way, Work work) {
    for (const Processors& processors : OneAndTwoProcessors()) {
        RegisterRun(name + processors.name + "/" + way, [processors, work](benchmark::State& state) {
            const Bound bound(processors.first);
            Object object;
            std::atomic<bool> ends{false};
            const Peer peer(
                processors.second, [] {},
                [&] {
                    while (!ends) {
                        work(object);
                    }
                });
            for (auto _ : state) {
                work(object);
            }
            ends = true;
        });
    }
}

/// Does `work(object)` while another thread has locked the object.
template <typename Object, typename Work>
void RegisterHeld(const std::string& name, Work work) {
    RegisterRun(name, [work](benchmark::State& state) {
        Object object;
        std::promise<void> end;
        const Peer holder(
            OneAndTwoProcessors().back().second, [&] { object.lock(); },
            [&] {
                end.get_future().wait();
                object.unlock();
            });
        for (auto _ : state) {
            work(object);
        }
        end.set_value();
    });
}
