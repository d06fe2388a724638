#include "Stress.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <system_error>

using namespace Kel::System::Ve;

namespace {

// In memory that all share.
struct Shared {
    // One that a process holds when it is killed is had again by the next but one who tries.
    std::array<Internal::Linux::IpcMutexService, 64> mutexes;
    std::array<std::atomic<int>, 64> holders{};
    std::atomic<unsigned int> killed{0};
};
Shared* shared = nullptr;
ISocketService* sharedListener = nullptr;

constexpr unsigned int messageSize = 64;

using Error = ISocketService::SocketError;
using Socket = std::unique_ptr<ISocketService>;

Socket MakeSocket(bool isBlocking) {
    return Socket(Factory().CreateSocket(
        ISocketService::SocketType::Stream, ISocketService::SocketDomain::Local,
        isBlocking ? ISocketService::SocketBlockingMode::Blocking : ISocketService::SocketBlockingMode::NonBlocking));
}

// Either end of a connection, whose other one may be gone.
void UseConnection(ISocketService& socket, Random& random) {
    char message[messageSize] = "to a peer";
    Error error{};
    if (random.IsOneIn(2) && socket.Send(message, messageSize, error) == -1) {
        Require(error == Error::NotConn || error == Error::ConnReset || error == Error::WouldBlock,
                "must not come of sending: error " + std::to_string(static_cast<int>(error)));
    }
    const int polled = socket.Poll(ISocketService::PollMode::Readable, 10, error);
    Require(
        polled == 0 ? error == Error::TimedOut : polled == 1 && (error == Error::Success || error == Error::ConnReset),
        "must not come of polling: error " + std::to_string(static_cast<int>(error)));
    if (polled == 1 && socket.Recv(message, messageSize, error) == -1) {
        Require(error == Error::ConnReset || error == Error::WouldBlock,
                "must not come of receiving: error " + std::to_string(static_cast<int>(error)));
    }
}

[[noreturn]] void BePeer(unsigned int seed) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Random random(seed);
    for (;;) {
        Peers::Use(random);
        const Socket socket = MakeSocket(random.IsOneIn(2));
        if (socket->Connect(RunName()) == 0) {
            UseConnection(*socket, random);
        }
    }
}

pid_t StartPeer(unsigned int seed) {
    const pid_t child = fork();
    if (child == 0) {
        Require(false, "a peer must not throw: " + Thrown([&] { BePeer(seed); }));
        _exit(EXIT_FAILURE);
    }
    return child;
}

bool EndPeer(pid_t child) {
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

// Until the other end is closed, also by the end of the program, however it comes.
[[noreturn]] void KeepPeers(int stopped, unsigned int seed) {
    Random random(seed);
    const auto next = [&random] { return StartPeer(random.Below(0xFFFFFFFF)); };
    std::array<pid_t, 2> peers{next(), next()};
    bool wereKilled = true;
    pollfd end{stopped, POLLIN, 0};
    while (poll(&end, 1, static_cast<int>(random.Below(40))) == 0) {
        pid_t& peer = peers[random.Below(peers.size())];
        wereKilled = EndPeer(peer) && wereKilled;
        ++shared->killed;
        peer = next();
    }
    for (const pid_t peer : peers) {
        wereKilled = EndPeer(peer) && wereKilled;
    }
    _exit(wereKilled ? EXIT_SUCCESS : EXIT_FAILURE);
}

}  // namespace

Peers::Peers(unsigned int seed)
    : semaphore(Factory().CreateSemaphore(RunName(), 0)),
      queue(Factory().CreateMessageQueue(RunName(), IMessageQueueService::OpenMode::CreateNew,
                                         IMessageQueueService::Access::ReadWrite, false, 4, messageSize)),
      listener(MakeSocket(false)) {
    Require(listener->Bind(RunName()) == 0 && listener->Listen(4) == 0, "peers must be able to connect");
    sharedListener = listener.get();
    void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    int ends[2];
    if (memory == MAP_FAILED || pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "peers");
    }
    shared = new (memory) Shared();
    for (auto& mutex : shared->mutexes) {
        mutex.Init(false);
    }
    keeper = fork();
    if (keeper == 0) {
        close(ends[1]);
        KeepPeers(ends[0], seed);
    }
    close(ends[0]);
    stop = ends[1];
}

Peers::~Peers() {
    close(stop);
    int status = 0;
    waitpid(keeper, &status, 0);
    Require(status == 0, "peers must end by being killed only");
    queue->Unlink();
}

unsigned int Peers::CountKilled() { return shared->killed; }

void Peers::Use(Random& random) {
    const std::size_t index = random.Below(static_cast<unsigned int>(shared->mutexes.size()));
    auto& mutex = shared->mutexes[index];
    bool acquired = false;
    RequireOneOf(Thrown([&] { acquired = mutex.TryLock(); }),
                 {"", "256 TryLock: Mutex could not be trylocked: Owner died"});
    const std::unique_ptr<ISemaphoreService> opened(Factory().CreateSemaphore(RunName()));
    if (acquired) {
        // Another process that was killed in here is still noted.
        Require(shared->holders[index].exchange(getpid()) != getpid(), "one must hold a mutex at most");
        opened->Wait(1);
        shared->holders[index] = 0;
        mutex.Unlock();
    }
    opened->Post();
    opened->TryWait();

    const std::unique_ptr<IMessageQueueService> same(Factory().CreateMessageQueue(RunName(), false));
    char message[messageSize] = "to a peer";
    RequireOneOf(Thrown([&] { same->Send(message, random.Below(messageSize), random.Below(8), 0); }),
                 {"", "256 Could not send message. Error Resource temporarily unavailable."});
    unsigned int priority = 0;
    const int length = same->Receive(message, messageSize, priority, 0);
    Require(length >= 0 && length < static_cast<int>(messageSize) && priority < 8, "a message must come whole");

    Kel::BasicString name;
    Error error{};
    if (const Socket socket{sharedListener->Accept(name, error)}; socket) {
        UseConnection(*socket, random);
    } else {
        Require(error == Error::WouldBlock, "an offer must be accepted");
    }
}
