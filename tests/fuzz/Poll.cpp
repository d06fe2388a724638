// Polling sockets: whatever the system reports, the answer is one of those that are promised.

#include "Fuzz.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

using Kel::System::Ve::ISocketService;
using Error = ISocketService::SocketError;

namespace {

// What poll reports, and what it has been asked.
struct {
    int result;
    int errorNumber;
    short events;
    pollfd asked;
    int askedTimeout;
    ISocketService* closedMeanwhile;
} report;

// What is told when an event is reported that says that the socket is ready.
Error ErrorWhenReady(bool isShutdown, bool isReset) {
    return isShutdown ? Error::Shutdown : isReset ? Error::ConnReset : Error::Success;
}

bool IsPromised(int result, Error error, bool isShutdown, bool isReset) {
    const int events = report.events;
    if (report.result <= 0) {
        return result == (report.result < 0 ? -1 : 0) && (report.result < 0 || error == Error::TimedOut);
    }
    // One bit alone: ready to be read or written.
    if ((events & (events - 1)) == 0 &&
        (events & (POLLIN | POLLRDNORM | POLLRDBAND | POLLOUT | POLLWRNORM | POLLWRBAND))) {
        return result == 1 && error == ErrorWhenReady(isShutdown, isReset);
    }
    if (events == (POLLIN | POLLHUP)) {
        return result == 1 && error == ErrorWhenReady(isShutdown, true);
    }
    if ((events & POLLHUP) != 0) {
        return result == 1 && error == Error::ConnReset;
    }
    return result == -1 ? error != Error::Success && error != Error::ConnReset && error != Error::Shutdown
                        : result == 1 && error == Error::ConnReset && (events & POLLRDHUP) != 0;
}

}  // namespace

// The library's own poll: it is a shared object, so this definition comes before the C library's.
extern "C" int ReportedPoll(pollfd* polled, nfds_t /*count*/, int timeout) __asm__("poll");
extern "C" int ReportedPoll(pollfd* polled, nfds_t /*count*/, int timeout) {
    report.asked = *polled;
    report.askedTimeout = timeout;
    polled->revents = report.events;
    if (report.closedMeanwhile != nullptr) {
        report.closedMeanwhile->Close();
    }
    errno = report.errorNumber;
    return report.result;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    report = {};
    report.result = input.Small();
    report.errorNumber = input.Number<std::int16_t>();
    report.events = input.Number<std::int16_t>();
    const int mode = input.Small();
    const auto timeout = input.Number<std::uint32_t>();
    const auto states = input.Number<std::uint8_t>();
    const auto has = [=](unsigned int bits) { return (states & bits) == bits; };
    const bool isShutdown = has(4);
    const bool isReset = has(2) && !has(1);

    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "there are two ends");
    const std::unique_ptr<ISocketService> socket(Factory().CreateSocket(&ends[0]));
    if (has(1)) {
        Require(write(ends[1], "x", 1) == 1, "the peer can send");
    }
    if (has(2)) {
        shutdown(ends[1], SHUT_RDWR);
    }
    if (isShutdown) {
        socket->Shutdown(ISocketService::ShutdownMode::Both);
    }
    if (has(8 + 16)) {
        socket->Close();
    }
    report.closedMeanwhile = has(32 + 64) ? socket.get() : nullptr;

    Error error{};
    const int result = socket->Poll(ISocketService::PollMode{mode}, timeout, error);
    if (mode < 1 || mode > 4) {
        Require(result == -1 && error == Error::Inval, "other modes are refused");
    } else if (has(8 + 16) || has(32 + 64)) {
        Require(result == -1 && error == Error::NotSock, "a closed socket says so");
    } else {
        Require(report.asked.fd == ends[0] && report.asked.events == (mode == 1 || mode == 4 ? 0x81 : 0x04) &&
                    report.askedTimeout == static_cast<int>(timeout),
                "the system is asked what was asked");
        Require(IsPromised(result, error, isShutdown, isReset), "the answer is a promised one");
    }
    close(ends[1]);
    return 0;
}
