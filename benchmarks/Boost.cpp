#include "FailureWorks.h"
#include "Families.h"
#include "FileWorks.h"
#include "ProgramWorks.h"
#include "SocketWorks.h"
#include "Works.h"

#include <boost/asio/generic/datagram_protocol.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/chrono/duration.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/dll/shared_library.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/format.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <boost/interprocess/sync/interprocess_semaphore.hpp>
#include <boost/interprocess/sync/named_semaphore.hpp>
#include <boost/process.hpp>
#include <boost/stacktrace.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <boost/thread/thread.hpp>

namespace interprocess = boost::interprocess;

namespace {

constexpr char way[] = "Boost";

boost::posix_time::ptime In(std::chrono::seconds duration) {
    return boost::posix_time::microsec_clock::universal_time() +
           boost::posix_time::seconds(static_cast<long>(duration.count()));
}

boost::chrono::seconds Duration(std::chrono::seconds duration) { return boost::chrono::seconds(duration.count()); }

struct TimedMutex : boost::timed_mutex {
    bool try_lock_for(std::chrono::seconds duration) { return boost::timed_mutex::try_lock_for(Duration(duration)); }
};

struct TimedLock : boost::shared_mutex {
    bool try_lock_for(std::chrono::seconds duration) { return boost::shared_mutex::try_lock_for(Duration(duration)); }
    bool try_lock_shared_for(std::chrono::seconds duration) {
        return boost::shared_mutex::try_lock_shared_for(Duration(duration));
    }
};

using Monitor = StandardMonitor<boost::mutex, boost::condition_variable, boost::unique_lock<boost::mutex>,
                                boost::adopt_lock_t, boost::chrono::seconds>;

struct Semaphore : interprocess::interprocess_semaphore {
    Semaphore() : interprocess_semaphore(0) {}
    bool wait_for(std::chrono::seconds duration) { return timed_wait(In(duration)); }
};

struct Queue {
    explicit Queue(const std::string& uniqueName = UniqueName("kel-bench-"))
        : name(uniqueName), queue(interprocess::create_only, name.c_str(), 4, length) {}
    ~Queue() { interprocess::message_queue::remove(name.c_str()); }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    void Send() { queue.send(message, length, 1); }
    void SendWithin(std::chrono::seconds limit) { Expect(queue.timed_send(message, length, 1, In(limit))); }
    void Receive() {
        char buffer[length];
        interprocess::message_queue::size_type received = 0;
        unsigned int priority = 0;
        queue.receive(buffer, length, received, priority);
    }
    void ReceiveWithin(std::chrono::seconds limit) {
        char buffer[length];
        interprocess::message_queue::size_type received = 0;
        unsigned int priority = 0;
        Expect(queue.timed_receive(buffer, length, received, priority, In(limit)));
    }

    static constexpr std::size_t length = 64;
    static constexpr char message[length] = {};
    std::string name;
    interprocess::message_queue queue;
};

boost::asio::io_context& Context() {
    static boost::asio::io_context context;
    return context;
}

template <typename Protocol>
struct SocketOf {
    explicit SocketOf(int descriptor) : socket(Context()) {
        // Of a generic protocol only the kind counts once there is a descriptor.
        socket.assign(Protocol(AF_INET, 0), descriptor);
    }
    std::size_t Send(const void* data, std::size_t length) { return socket.send(boost::asio::buffer(data, length)); }
    std::size_t Receive(void* buffer, std::size_t length) {
        return socket.receive(boost::asio::buffer(buffer, length));
    }

    typename Protocol::socket socket;
};
using StreamSocket = SocketOf<boost::asio::generic::stream_protocol>;
using DatagramSocket = SocketOf<boost::asio::generic::datagram_protocol>;

void RegisterShared() {
    const std::string semaphoreName = UniqueName("kel-bench-");
    Register("semaphore/named create and close/Boost", [semaphoreName] {
        { const interprocess::named_semaphore semaphore(interprocess::create_only, semaphoreName.c_str(), 0); }
        Expect(interprocess::named_semaphore::remove(semaphoreName.c_str()));
    });
    const std::string memoryName = UniqueName("kel-bench-");
    Register("shared memory/create and close/Boost", [memoryName] {
        {
            interprocess::shared_memory_object memory(interprocess::open_or_create, memoryName.c_str(),
                                                      interprocess::read_write);
            memory.truncate(sharedSize);
            const interprocess::mapped_region region(memory, interprocess::read_write);
        }
        Expect(interprocess::shared_memory_object::remove(memoryName.c_str()));
    });
}

void ThrowWithTrace() { throw boost::stacktrace::to_string(boost::stacktrace::stacktrace()); }

}  // namespace

void RegisterBoost() {
    RegisterMutexes<boost::mutex, boost::recursive_mutex, TimedMutex>(way);
    RegisterReadWriteLocks<boost::shared_mutex>(way);
    RegisterTimedReadWriteLocks<TimedLock>(way);
    RegisterConditionVariables<Monitor>(way);
    RegisterSemaphores<Semaphore>(way);
    RegisterPlainThread(way,
                        [] { boost::thread([] { Expect(pthread_setname_np(pthread_self(), "bench") == 0); }).join(); });
    RegisterTransfers<StreamSocket, DatagramSocket>(way);
    RegisterSendAndReceive<DatagramSocket>(way);
    RegisterReady<DatagramSocket>("socket/poll ready/Boost", [](DatagramSocket& ready) {
        ready.socket.wait(boost::asio::socket_base::wait_read);
    });
    RegisterQueues<Queue>(way);
    RegisterShared();
    RegisterOn<TemporaryFile>("file/exists/Boost",
                              [](auto& file) { Expect(boost::filesystem::exists(file.path.c_str())); });
    RegisterProcess(way, [] { Expect(boost::process::system(program) == 0); });
    Register("shared library/load, look up and unload/Boost", [] {
        const boost::dll::shared_library library(BENCH_LIBRARY,
                                                 boost::dll::load_mode::rtld_now | boost::dll::load_mode::rtld_global);
        Expect(&library.get<int()>(symbol) != nullptr);
    });
    RegisterThrow<std::string>(way, &ThrowWithTrace);
    Register("message/compose/Boost", [] {
        benchmark::DoNotOptimize((boost::format("%1%: Could not open %2% (%3%)") % place % path % number).str());
    });
}
