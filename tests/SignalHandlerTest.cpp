#include "support/Test.h"

#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cfenv>
#include <cstring>
#include <stdexcept>

// Not in a namespace without a name: a trace shows the names that a program exports.

// Not null, which the sanitizers look for.
int* volatile nowhere = reinterpret_cast<int*>(16);

[[gnu::noinline]] void CrashByWriting() { *nowhere = 1; }

[[gnu::noinline]] void CrashByIllegalInstruction() {
    int* const volatile before = nowhere;
    static_cast<void>(before);
    __builtin_trap();
}

[[gnu::noinline, gnu::no_sanitize("undefined")]] void CrashByCalculating() {
#if defined(__x86_64__)
    static volatile int zero = 0;
    zero = 1 / zero;
#else
    // Elsewhere a division by zero does not trap.
    static_cast<void>(raise(SIGFPE));
    errno = 0;
#endif
}

[[gnu::noinline]] void CrashDeepDown(int depth) {
    if (depth == 0) {
        CrashByWriting();
    } else {
        CrashDeepDown(depth - 1);
    }
    nowhere = nowhere;
}

// Faults without having saved the address that it returns to.
[[gnu::noinline]] int LeafThatCrashes(const int* where) { return *where; }

[[gnu::noinline]] int LeafThatCrashesConditionally(int value, int* where) {
#if defined(__arm__)
    // In a block of conditional instructions, whose state the processor keeps.
    asm volatile("cmp %0, #0\n\titee ne\n\tstrne %0, [%1]\n\tmoveq r0, #0\n\tmoveq r0, #0"
                 :
                 : "r"(value), "r"(where)
                 : "r0", "memory");
#else
    *where = value;
#endif
    return value;
}

namespace {

struct Told {
    std::array<char, 8192> report;
    std::atomic<int> calls;
};

const SharedObject<Told>* told = nullptr;

void KeepReport(const BasicString& report) {
    ++(*told)->calls;
    std::strncpy((*told)->report.data(), report.c_str(), (*told)->report.size() - 1);
}

void KeepReportAndEnd(const BasicString& report) {
    KeepReport(report);
    _exit(3);
}

class SignalHandlerTest : public FactoryTest {
protected:
    SignalHandlerTest() { told = &shared; }

    void SetUpHandlers(void (*throwCallback)(), void (*terminateCallback)(const BasicString&)) {
        Own(factory->CreateSignalHandler())->Setup(throwCallback, terminateCallback);
    }

    std::string Report() const { return shared->report.data(); }

    SharedObject<Told> shared;
};

TEST_F(SignalHandlerTest, CrashIsReportedWithTheNamesOfTheFunctions) {
    const struct {
        const char* signal;
        void (*crash)();
        const char* function;
    } table[] = {{"SIGSEGV", &CrashByWriting, "CrashByWriting()"},
                 {"SIGILL", &CrashByIllegalInstruction, "CrashByIllegalInstruction()"},
                 {"SIGFPE", &CrashByCalculating, "CrashByCalculating()"}};
    for (const auto& row : table) {
        for (const bool inThread : {false, true}) {
            SCOPED_TRACE(std::string(row.signal) + (inThread ? " in a thread" : ""));
            shared->report = {};
            Child child([&] {
                alarm(60);
                SetUpHandlers(nullptr, &KeepReportAndEnd);
                if (inThread) {
                    std::thread(row.crash).join();
                } else {
                    row.crash();
                }
                return 0;
            });
            EXPECT_EQ(child.Wait(), 3);
            const std::string report = Report();
            const std::string heading = "Signal " + std::string(row.signal) + " occured.\r\nStacktrace:\r\n";
            EXPECT_EQ(report.substr(0, heading.size()), heading);
            EXPECT_NE(report.find("   at: " + std::string(row.function) + "\r\n", heading.size()), std::string::npos)
                << report;
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)  // Their own frame comes first.
            EXPECT_EQ(report.find("StackTraceHandler"), std::string::npos);
#endif
            EXPECT_EQ(report.substr(report.size() - 2), "\r\n");
        }
    }
}

TEST_F(SignalHandlerTest, SetUpInstallsTheHandlerAndNothingElse) {
    EXPECT_TRUE(SucceedsInChild([this] {
        const auto throwCallback = [] {};
        std::atomic<bool> isLoaded{false};
        const Interposition traced("backtrace", [&](const auto& /*arguments*/) {
            isLoaded = true;
            return 0;
        });
        SetUpHandlers(throwCallback, &KeepReport);
        // Once before it is needed, since it loads a library.
        EXPECT_TRUE(isLoaded);
        EXPECT_EQ(SignalHandlerService::pThrowExceptionCallback, static_cast<void (*)()>(throwCallback));
        sigset_t none;
        sigemptyset(&none);
        for (const int signal : {SIGSEGV, SIGILL, SIGFPE}) {
            struct sigaction action {};
            sigaction(signal, nullptr, &action);
            EXPECT_EQ(action.sa_sigaction, &SignalHandlerService::StackTraceHandler);
            EXPECT_EQ(action.sa_flags & (SA_NODEFER | SA_ONSTACK | SA_RESETHAND | SA_RESTART | SA_SIGINFO), SA_SIGINFO);
            EXPECT_EQ(std::memcmp(&action.sa_mask, &none, 8), 0);
        }
    }));
}

TEST_F(SignalHandlerTest, TraceHas63Lines) {
    Child child([this] {
        SetUpHandlers(nullptr, &KeepReportAndEnd);
        CrashDeepDown(100);
        return 0;
    });
    EXPECT_EQ(child.Wait(), 3);
    const std::string report = Report();
    // Two of the heading.
    EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 2 + 63) << report;
}

TEST_F(SignalHandlerTest, HandlerReturnsAndKeepsErrno) {
    EXPECT_TRUE(SucceedsInChild([this] {
        SetUpHandlers(nullptr, [](const BasicString& report) {
            KeepReport(report);
            errno = EIO;
        });
        errno = EPERM;
        static_cast<void>(raise(SIGSEGV));
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(shared->calls, 1);
        // Other signals have no name; no frames, no lines.
        const Interposition untraced("backtrace", [](const auto& /*arguments*/) { return 0; });
        SignalHandlerService::StackTraceHandler(SIGTERM, nullptr, nullptr);
        EXPECT_EQ(Report(), "Signal  occured.\r\nStacktrace:\r\n");
    }));
}

TEST_F(SignalHandlerTest, WithoutAnEndTheCrashRecurs) {
    for (const auto callback : {&KeepReport, static_cast<void (*)(const BasicString&)>(nullptr)}) {
        shared->calls = 0;
        Child child([&] {
            SetUpHandlers(nullptr, callback);
            const itimerval limit{{0, 0}, {0, 300000}};
            setitimer(ITIMER_REAL, &limit, nullptr);
            CrashByWriting();
            return 0;
        });
        EXPECT_EQ(child.Wait(), 128 + SIGALRM);
        EXPECT_EQ(shared->calls > 1, callback != nullptr);
    }
}

class ThrowHandlerTest : public SignalHandlerTest {
protected:
    static void Install() {
        alarm(60);
        SignalHandlerService::pThrowExceptionCallback = [] {
            throw std::runtime_error(std::to_string(SignalHandlerService::exceptionCode));
        };
        struct sigaction action {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = &SignalHandlerService::ThrowHandler;
        for (const int signal : {SIGSEGV, SIGILL, SIGFPE}) {
            sigaction(signal, &action, nullptr);
        }
    }

    // The signal that `function` was ended by, as its caller catches it.
    template <typename Function>
    static int CaughtFrom(Function&& function) {
        // Kept over the exception, some of them in registers that a function saves for its caller.
        volatile int seed = 1;
        const int kept[] = {seed + 1, seed + 2, seed + 3, seed + 4, seed + 5, seed + 6};
        int sum = 0;
        try {
            function();
        } catch (const std::runtime_error& exception) {
            sum = std::stoi(exception.what());
        }
        for (const int value : kept) {
            sum += value;
        }
        return sum - 27;
    }

    [[gnu::noinline]] static int CatchesItself() {
        try {
            *nowhere = 1;
        } catch (const std::runtime_error& exception) {
            return std::stoi(exception.what());
        }
        return 0;
    }
};

TEST_F(ThrowHandlerTest, CrashBecomesAnException) {
    EXPECT_TRUE(SucceedsInChild([] {
        Install();
        const auto all = [] {
            EXPECT_EQ(CatchesItself(), SIGSEGV);
            EXPECT_EQ(CaughtFrom([] { LeafThatCrashes(nowhere); }), SIGSEGV);
            EXPECT_EQ(CaughtFrom([] { LeafThatCrashesConditionally(1, nowhere); }), SIGSEGV);
            EXPECT_EQ(CaughtFrom(&CrashByWriting), SIGSEGV);
#if defined(__x86_64__)
            EXPECT_EQ(CaughtFrom(&CrashByCalculating), SIGFPE);
#endif
            // The compiler takes what it knows of the function to throw nothing.
            void (*volatile const illegal)() = &CrashByIllegalInstruction;
            EXPECT_EQ(CaughtFrom([&] { illegal(); }), SIGILL);
        };
        // Again and again: the signal does not stay blocked.
        all();
        all();
        std::thread(all).join();
        SignalHandlerService::exceptionCode = 0;
        std::thread([] { EXPECT_EQ(CatchesItself(), SIGSEGV); }).join();
        EXPECT_EQ(SignalHandlerService::exceptionCode, 0);
    }));
}

// Elsewhere the system itself restores how it calculates.
#if defined(__x86_64__)
TEST_F(ThrowHandlerTest, ProgramCalculatesOnAsItDid) {
    EXPECT_TRUE(SucceedsInChild([] {
        Install();
        std::fesetround(FE_DOWNWARD);
        feenableexcept(FE_DIVBYZERO);
        static volatile double zero = 0;
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(CaughtFrom([] { zero = 1 / zero; }), SIGFPE);
            EXPECT_EQ(std::fegetround(), FE_DOWNWARD);
        }
    }));
}
#endif

#if defined(__arm__)
// Return from where they were called, also when they were interrupted there; one with the stack pointer in between the
// multiples of 8 that calls need.
[[gnu::naked]] int LeafThatGoesOn(const int* /*where*/) { asm("ldr r1, [r0]\n\tmovs r0, #7\n\tbx lr"); }

[[gnu::naked]] int OddLeafThatGoesOn(const int* /*where*/) {
    asm("push {r4}\n\tldr r1, [r0]\n\tmovs r0, #7\n\tpop {r4}\n\tbx lr");
}

TEST_F(ThrowHandlerTest, CallbackThatReturnsGoesOnBehindTheInstruction) {
    EXPECT_TRUE(SucceedsInChild([] {
        Install();
        static std::uintptr_t stackPointer = 1;
        for (const auto leaf : {&LeafThatGoesOn, &OddLeafThatGoesOn}) {
            SignalHandlerService::pThrowExceptionCallback = [] { asm volatile("mov %0, sp" : "=r"(stackPointer)); };
            EXPECT_EQ(leaf(nowhere), 7);
            EXPECT_EQ(stackPointer % 8, 0U);
        }
    }));
}
#endif

TEST_F(ThrowHandlerTest, WithoutCallbackNothingIsThrown) {
    SignalHandlerService::pThrowExceptionCallback = nullptr;
    SignalHandlerService::ThrowException();
    static int calls = 0;
    SignalHandlerService::pThrowExceptionCallback = [] { ++calls; };
    SignalHandlerService::ThrowException();
    EXPECT_EQ(calls, 1);
    SignalHandlerService::pThrowExceptionCallback = [] { throw std::runtime_error("x"); };
    EXPECT_THROW(SignalHandlerService::ThrowException(), std::runtime_error);
    EXPECT_TRUE(SucceedsInChild([] {
        Install();
        SignalHandlerService::pThrowExceptionCallback = nullptr;
        errno = EPERM;
        static_cast<void>(raise(SIGSEGV));
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(SignalHandlerService::exceptionCode, SIGSEGV);
#if !defined(__arm__)
        SignalHandlerService::pThrowExceptionCallback = [] { errno = EIO; };
        static_cast<void>(raise(SIGSEGV));
        EXPECT_EQ(errno, EPERM);
#endif
    }));
    SignalHandlerService::pThrowExceptionCallback = nullptr;
}

}  // namespace
