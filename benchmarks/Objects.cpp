#include "Bare.h"
#include "Factory.h"
#include "Families.h"
#include "FileWorks.h"
#include "TwoThreads.h"

#include <Kel/System/Ve/Internal/FileServiceBase.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <mqueue.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <memory>
#include <vector>

using Kel::System::Ve::IFileService;
using Kel::System::Ve::IMessageQueueService;
using Kel::System::Ve::IMutexService;
using Kel::System::Ve::INetworkInterfaceInfo;
using Kel::System::Ve::ISharedMemoryService;
using Kel::System::Ve::ISocketService;

namespace {

const Kel::BasicString& Name() {
    static const Kel::BasicString name = UniqueName("/kel-bench-object-");
    return name;
}

const Kel::BasicString& ExistingFile() {
    static const TemporaryFile file;
    return file.path;
}

void* DoNothing(void* /*argument*/) { return nullptr; }

// On the heap, as a program has it that hands it around.
template <typename Object>
void MakeAndDelete() {
    const auto object = std::make_unique<Object>();
    benchmark::DoNotOptimize(object.get());
}

// What a timer and a thread that have not been started keep: what they have to be waited for with, and their settings.
struct BareThread {
    BareMutex mutex;
    pthread_cond_t ended = PTHREAD_COND_INITIALIZER;
    std::string name;
};

struct BareTimer : BareThread {
    BareMonitor monitor;
};

void ReadInterfaceByHand() {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    char text[INET_ADDRSTRLEN];
    for (const unsigned long what : {SIOCGIFADDR, SIOCGIFNETMASK}) {
        Expect(ioctl(descriptor, what, &request) == 0);
        const auto& address = reinterpret_cast<const sockaddr_in&>(request.ifr_addr);
        Expect(inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) != nullptr);
    }
    Expect(ioctl(descriptor, SIOCGIFHWADDR, &request) == 0 && close(descriptor) == 0);
}

// A kind of service: an object made and deleted, through the library and by hand. Where there is nothing to be made by
// hand, there is only the memory.
struct Kind {
    const char* work;
    void (*library)(ServiceFactory&);
    void (*bare)();
};

const Kind kinds[] = {
    {"mutex/create and delete", [](ServiceFactory& factory) { delete factory.CreateMutex(false); },
     &MakeAndDelete<BareMutex>},
    {"condition variable/create and delete", [](ServiceFactory& factory) { delete factory.CreateConditionVariable(); },
     &MakeAndDelete<BareCondition>},
    {"read-write lock/create and delete", [](ServiceFactory& factory) { delete factory.CreateRWLock(); },
     &MakeAndDelete<BareLock>},
    {"semaphore/create and delete", [](ServiceFactory& factory) { delete factory.CreateSemaphore(0); },
     &MakeAndDelete<BareSemaphore>},
    {"semaphore/named create and close", [](ServiceFactory& factory) { delete factory.CreateSemaphore(Name(), 0); },
     [] {
         sem_t* const semaphore = sem_open(Name().c_str(), O_CREAT | O_EXCL, 0666, 0U);
         Expect(semaphore != SEM_FAILED && sem_close(semaphore) == 0 && sem_unlink(Name().c_str()) == 0);
     }},
    {"thread/create and delete", [](ServiceFactory& factory) { delete factory.CreateThread(&DoNothing); },
     &MakeAndDelete<BareThread>},
    {"timer/create and delete",
     [](ServiceFactory& factory) { delete factory.CreateTimer(1000, "bench", 0, nullptr, nullptr, 0); },
     &MakeAndDelete<BareTimer>},
    {"shared memory/create and close",
     [](ServiceFactory& factory) {
         const std::unique_ptr<ISharedMemoryService> memory(
             factory.CreateSharedMemory(Name(), sharedSize, ISharedMemoryService::mode::Create));
         // The library keeps it mapped.
         Expect(munmap(memory->GetAddress(), sharedSize) == 0 && shm_unlink(Name().c_str()) == 0);
     },
     [] {
         const int descriptor = shm_open(Name().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666);
         Expect(descriptor != -1 && ftruncate(descriptor, sharedSize) == 0);
         void* const address = mmap(nullptr, sharedSize, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
         Expect(address != MAP_FAILED && munmap(address, sharedSize) == 0 && shm_unlink(Name().c_str()) == 0);
         Expect(close(descriptor) == 0);
     }},
    {"socket/create and close",
     [](ServiceFactory& factory) {
         delete factory.CreateSocket(ISocketService::SocketType::Datagram, ISocketService::SocketDomain::Ipv4,
                                     ISocketService::SocketBlockingMode::Blocking);
     },
     [] { Expect(close(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) == 0); }},
    {"file/open and close",
     [](ServiceFactory& factory) {
         delete factory.CreateFile(ExistingFile(), IFileService::FileMode::Open, IFileService::FileAccess::Read, false);
     },
     [] {
         std::FILE* const file = std::fopen(ExistingFile().c_str(), "rbe");
         Expect(file != nullptr && std::fclose(file) == 0);
     }},
    {"message queue/create and close",
     [](ServiceFactory& factory) {
         const std::unique_ptr<IMessageQueueService> queue(factory.CreateMessageQueue(
             Name(), IMessageQueueService::OpenMode::CreateNew, IMessageQueueService::Access::ReadWrite, true, 4, 64));
         queue->Unlink();
     },
     [] {
         mq_attr attributes{};
         attributes.mq_maxmsg = 4;
         attributes.mq_msgsize = 64;
         const mqd_t queue = mq_open(Name().c_str(), O_CREAT | O_EXCL | O_RDWR, 0600, &attributes);
         Expect(queue != -1 && mq_close(queue) == 0 && mq_unlink(Name().c_str()) == 0);
     }},
    {"network interface/read and delete",
     [](ServiceFactory& factory) {
         Kel::BasicString error;
         const std::unique_ptr<INetworkInterfaceInfo> info(factory.CreateNetworkInterfaceInfo("lo", error));
         Expect(info != nullptr);
     },
     &ReadInterfaceByHand},
    {"process/create and delete", [](ServiceFactory& factory) { delete factory.CreateProcess(); },
     &MakeAndDelete<pid_t>},
    {"shared library/create and delete", [](ServiceFactory& factory) { delete factory.CreateSharedLibrary(); },
     &MakeAndDelete<void*>},
    {"signal handler/create and delete", [](ServiceFactory& factory) { delete factory.CreateSignalHandler(); },
     &MakeAndDelete<void*>},
    {"trace controller/create and delete", [](ServiceFactory& factory) { delete factory.CreateTraceController(); },
     &MakeAndDelete<void*>},
};

struct LibraryObjects {
    explicit LibraryObjects(std::size_t count) : objects(count) {
        for (auto& object : objects) {
            object.reset(Factory().CreateMutex(false));
        }
    }

    std::vector<std::unique_ptr<IMutexService>> objects;
};

struct BareObjects {
    explicit BareObjects(std::size_t count) : objects(count) {
        for (auto& object : objects) {
            object = std::make_unique<BareMutex>();
        }
    }

    std::vector<std::unique_ptr<BareMutex>> objects;
};

template <typename Others, typename Work>
void RegisterBeside(const char* work, const char* way, Work makeAndDelete) {
    for (const std::size_t alive : {std::size_t{0}, std::size_t{1000}, std::size_t{100000}}) {
        const std::string beside = alive == 0 ? "" : " beside " + std::to_string(alive);
        RegisterRun(work + beside + "/" + way, [alive, makeAndDelete](benchmark::State& state) {
            const Others others(alive);
            for (auto _ : state) {
                makeAndDelete();
            }
        });
    }
}

struct Nothing {};

}  // namespace

void RegisterObjects() {
    ServiceFactory& factory = Factory();
    for (const Kind& kind : kinds) {
        RegisterBeside<LibraryObjects>(kind.work, "library", [&factory, library = kind.library] { library(factory); });
        RegisterBeside<BareObjects>(kind.work, "bare", kind.bare);
    }
    // All kinds wait for one another in the same place.
    RegisterContended<Nothing>("mutex/contended create and delete", "library",
                               [&factory](Nothing&) { delete factory.CreateMutex(false); });
    RegisterContended<Nothing>("mutex/contended create and delete", "bare",
                               [](Nothing&) { MakeAndDelete<BareMutex>(); });
}
