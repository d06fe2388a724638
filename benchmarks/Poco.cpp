#include "FailureWorks.h"
#include "Families.h"
#include "FileWorks.h"
#include "ProgramWorks.h"
#include "SocketWorks.h"
#include "Works.h"

#include <Poco/Condition.h>
#include <Poco/Event.h>
#include <Poco/File.h>
#include <Poco/FileStream.h>
#include <Poco/Format.h>
#include <Poco/Mutex.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/DatagramSocketImpl.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/Process.h>
#include <Poco/RWLock.h>
#include <Poco/Semaphore.h>
#include <Poco/SharedLibrary.h>
#include <Poco/SharedMemory.h>
#include <Poco/Thread.h>

namespace {

constexpr char way[] = "POCO";

long Milliseconds(std::chrono::milliseconds duration) { return static_cast<long>(duration.count()); }

template <typename PocoMutex>
struct MutexOf : PocoMutex {
    bool try_lock() { return this->tryLock(); }
    bool try_lock_for(std::chrono::seconds duration) { return this->tryLock(Milliseconds(duration)); }
};
using Mutex = MutexOf<Poco::FastMutex>;
using RecursiveMutex = MutexOf<Poco::Mutex>;

struct Lock : Poco::RWLock {
    void lock() { writeLock(); }
    bool try_lock() { return tryWriteLock(); }
    void lock_shared() { readLock(); }
    bool try_lock_shared() { return tryReadLock(); }
    void unlock_shared() { unlock(); }
};

struct Monitor {
    void Lock() { mutex.lock(); }
    void Unlock() { mutex.unlock(); }
    void Notify() { condition.signal(); }
    void Wait() { condition.wait(mutex); }
    bool WaitForNothing() { return condition.tryWait(mutex, 0); }

    Poco::FastMutex mutex;
    Poco::Condition condition;
};

struct Semaphore {
    void post() { semaphore.set(); }
    void wait() { semaphore.wait(); }
    bool try_wait() { return semaphore.tryWait(0); }
    bool wait_for(std::chrono::seconds duration) { return semaphore.tryWait(Milliseconds(duration)); }

    Poco::Semaphore semaphore{0, 1};
};

struct Event {
    void post() { event.set(); }
    void wait() { event.wait(); }

    Poco::Event event;
};

template <typename PocoSocket, typename Implementation>
struct SocketOf : PocoSocket {
    explicit SocketOf(int descriptor) : PocoSocket(new Implementation(descriptor)) {}

    int Send(const void* data, std::size_t length) { return this->sendBytes(data, static_cast<int>(length)); }
    int Receive(void* buffer, std::size_t length) { return this->receiveBytes(buffer, static_cast<int>(length)); }
};
using StreamSocket = SocketOf<Poco::Net::StreamSocket, Poco::Net::StreamSocketImpl>;
using DatagramSocket = SocketOf<Poco::Net::DatagramSocket, Poco::Net::DatagramSocketImpl>;

}  // namespace

void RegisterPoco() {
    RegisterMutexes<Mutex, RecursiveMutex, Mutex>(way);
    RegisterReadWriteLocks<Lock>(way);
    RegisterConditionVariables<Monitor>(way);
    RegisterSemaphores<Semaphore>(way);
    RegisterPingPong("semaphore/ping-pong", "POCO Event", [] { return SemaphoreChannel<Event>(); });
    RegisterPlainThread(way, [] {
        Poco::Thread thread("bench");
        thread.startFunc([] {});
        thread.join();
    });
    RegisterTransfers<StreamSocket, DatagramSocket>(way);
    RegisterSendAndReceive<DatagramSocket>(way);
    RegisterReady<DatagramSocket>("socket/poll ready/POCO", [](DatagramSocket& socket) {
        Expect(socket.poll(Poco::Timespan(1, 0), Poco::Net::Socket::SELECT_READ));
    });
    const std::string memoryName = UniqueName("kel-bench-");
    Register("shared memory/create and close/POCO", [memoryName] {
        const Poco::SharedMemory memory(memoryName, sharedSize, Poco::SharedMemory::AM_WRITE);
        benchmark::DoNotOptimize(memory.begin());
    });
    RegisterFileWorks<StreamFile<Poco::FileStream>>(way);
    RegisterOn<TemporaryFile>("file/open and close/POCO",
                              [](auto& file) { Expect(Poco::FileInputStream(file.path).good()); });
    RegisterOn<TemporaryFile>("file/exists/POCO", [](auto& file) { Expect(Poco::File(file.path).exists()); });
    RegisterProcess(way, [] { Expect(Poco::Process::launch(program, {}).wait() == 0); });
    Register("shared library/load, look up and unload/POCO", [] {
        Poco::SharedLibrary library(BENCH_LIBRARY);
        Expect(library.getSymbol(symbol) != nullptr);
        library.unload();
    });
    Register("message/compose/POCO", [] {
        benchmark::DoNotOptimize(
            Poco::format("%s: Could not open %s (%d)", std::string(place), std::string(path), number));
    });
}
