#include "support/Test.h"

#include <cfenv>
#include <numeric>

// Not in a namespace without a name: a trace shows the names that a program exports.

// Not null, which the sanitizers look for.
int* volatile nowhere = reinterpret_cast<int*>(16);

// Does not save the address that it returns to.
[[gnu::noinline]] void CrashByWriting() { *nowhere = 1; }

#if defined(__x86_64__)
// With its first instruction: the one before is not its own.
[[gnu::naked]] void CrashByIllegalInstruction() { asm("ud2"); }
#else
[[gnu::noinline]] void CrashByIllegalInstruction() {
    nowhere = nowhere;
    asm volatile("udf #0");
}
#endif

[[gnu::noinline]] void CrashDeepDown(int depth, void (*crash)()) {
    depth == 0 ? crash() : CrashDeepDown(depth - 1, crash);
    nowhere = nowhere;
}

namespace {

using SignalHandlerTest = FactoryTest;

TEST_F(SignalHandlerTest, CrashIsReportedWithTheNamesOfTheFunctions) {
    // Its report comes with the number of its lines.
    const auto run = [this](void (*crash)()) {
        alarm(60);
        Own(factory->CreateSignalHandler())->Setup(nullptr, [](const BasicString& report) {
            std::cerr << report << std::count(report.begin(), report.end(), '\n') << " lines";
            EndChild(3);
        });
        CrashDeepDown(100, crash);
    };
    const auto expectReport = [&](void (*crash)(), const std::string& signal, const std::string& function) {
        const std::string report = "Signal " + signal + " occured[.]\r\nStacktrace:\r\n   at: .*   at: " + function;
        // Two lines of the heading.
        EXPECT_EXIT(run(crash), testing::ExitedWithCode(3), report + "[(][^\r]*\r\n.*\r\n65 lines");
    };
    expectReport(&CrashByWriting, "SIGSEGV", "CrashByWriting");
    expectReport(&CrashByIllegalInstruction, "SIGILL", "CrashByIllegalInstruction");
    // A division by zero does not trap everywhere.
    expectReport([] { static_cast<void>(raise(SIGFPE)); }, "SIGFPE", "CrashDeepDown");
}

TEST_F(SignalHandlerTest, SetUpInstallsTheHandlerAndNothingElse) {
    EXPECT_TRUE(SucceedsInChild([this] {
        const auto service = Own(factory->CreateSignalHandler());
        // Once before it is needed, since it loads a library.
        EXPECT_EQ(CallsOf("backtrace", [&] { service->Setup(&CrashByWriting, nullptr); }).size(), 1U);
        EXPECT_EQ(SignalHandlerService::pThrowExceptionCallback, &CrashByWriting);
        struct sigaction action {};
        sigaction(SIGSEGV, nullptr, &action);
        const std::uint32_t told = SA_NODEFER | SA_ONSTACK | SA_RESETHAND | SA_RESTART | SA_SIGINFO;
        EXPECT_EQ(static_cast<std::uint32_t>(action.sa_flags) & told, std::uint32_t{SA_SIGINFO});
        EXPECT_TRUE(sigisemptyset(&action.sa_mask));
    }));
}

TEST_F(SignalHandlerTest, HandlerReturnsAndKeepsErrno) {
    SignalHandlerService::pTerminateCallback = [](const BasicString& report) {
        // Other signals have no name.
        EXPECT_EQ(report.find("Signal  occured.\r\nStacktrace:\r\n"), 0U);
        errno = EIO;
    };
    errno = EPERM;
    SignalHandlerService::StackTraceHandler(SIGTERM, nullptr, nullptr);
    EXPECT_EQ(errno, EPERM);
    // Nobody to be told.
    SignalHandlerService::pTerminateCallback = nullptr;
    SignalHandlerService::StackTraceHandler(SIGTERM, nullptr, nullptr);
}

// Has each crash become an exception that is its signal.
void InstallThrowHandler() {
    alarm(60);
    SignalHandlerService::pThrowExceptionCallback = [] { throw int{SignalHandlerService::exceptionCode}; };
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = &SignalHandlerService::ThrowHandler;
    sigaction(SIGSEGV, &action, nullptr);
    sigaction(SIGFPE, &action, nullptr);
}

// The signal that `function` was ended by, or this one itself, if that returns.
int CaughtFrom(void (*volatile function)()) {
    // Kept over the exception, some of them in registers that a function saves for its caller.
    volatile int seed = 1;
    const int kept[] = {seed + 1, seed + 2, seed + 3, seed + 4, seed + 5, seed + 6};
    int caught = 0;
    try {
        function();
        *nowhere = 1;
    } catch (const int signal) {
        caught = signal;
    }
    return std::accumulate(std::begin(kept), std::end(kept), caught) - 27;
}

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

TEST(ThrowHandlerTest, CrashBecomesAnExceptionInItsThread) {
    EXPECT_TRUE(SucceedsInChild([] {
        InstallThrowHandler();
        std::thread([] {
        // Again and again: the signal does not stay blocked.
#if !defined(__clang__)  // It expects an exception of calls only.
            EXPECT_EQ(CaughtFrom([] {}), SIGSEGV);
#endif
            EXPECT_EQ(CaughtFrom(&CrashByWriting), SIGSEGV);
            EXPECT_EQ(CaughtFrom([] { LeafThatCrashesConditionally(1, nowhere); }), SIGSEGV);
        }).join();
        EXPECT_EQ(SignalHandlerService::exceptionCode, 0);
    }));
}

// Elsewhere the system itself restores how it calculates.
#if defined(__x86_64__)
TEST(ThrowHandlerTest, ProgramGoesOnAsItDid) {
    EXPECT_TRUE(SucceedsInChild([] {
        InstallThrowHandler();
        std::fesetround(FE_DOWNWARD);
        feenableexcept(FE_DIVBYZERO);
        static volatile double zero = 0;
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(CaughtFrom([] { zero = 1 / zero; }), SIGFPE);
            EXPECT_EQ(std::fegetround(), FE_DOWNWARD);
        }
        SignalHandlerService::pThrowExceptionCallback = [] { errno = EIO; };
        errno = EPERM;
        static_cast<void>(raise(SIGFPE));
        EXPECT_EQ(errno, EPERM);
    }));
}
#endif

#if defined(__arm__)
// Returns from where it was called, also when it was interrupted there, with the stack pointer in between the multiples
// of 8 that calls need.
[[gnu::naked]] int OddLeafThatGoesOn(const int* /*where*/) {
    asm("push {r4}\n\tldr r1, [r0]\n\tmovs r0, #7\n\tpop {r4}\n\tbx lr");
}

TEST(ThrowHandlerTest, CallbackThatReturnsGoesOnBehindTheInstruction) {
    EXPECT_TRUE(SucceedsInChild([] {
        InstallThrowHandler();
        static std::uintptr_t stackPointer = 1;
        SignalHandlerService::pThrowExceptionCallback = [] { asm volatile("mov %0, sp" : "=r"(stackPointer)); };
        EXPECT_EQ(OddLeafThatGoesOn(nowhere), 7);
        EXPECT_EQ(stackPointer % 8, 0U);
    }));
}
#endif

}  // namespace
