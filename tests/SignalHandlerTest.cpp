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

[[gnu::noinline, gnu::no_sanitize("undefined")]] void CrashByCalculating() {
    static volatile int zero = 0;
    zero = 1 / zero;
}
#else
[[gnu::noinline]] void CrashByIllegalInstruction() {
    int* const volatile before = nowhere;
    static_cast<void>(before);
    __builtin_trap();
}

// A division by zero does not trap.
[[gnu::noinline]] void CrashByCalculating() {
    static_cast<void>(raise(SIGFPE));
    errno = 0;
}
#endif

[[gnu::noinline]] void CrashDeepDown(int depth, void (*crash)()) {
    depth == 0 ? crash() : CrashDeepDown(depth - 1, crash);
    nowhere = nowhere;
}

namespace {

using SignalHandlerTest = FactoryTest;

TEST_F(SignalHandlerTest, CrashIsReportedWithTheNamesOfTheFunctions) {
    const struct {
        std::string signal;
        void (*crash)();
        std::string function;
    } table[] = {{"SIGSEGV", &CrashByWriting, "CrashByWriting()"},
                 {"SIGILL", &CrashByIllegalInstruction, "CrashByIllegalInstruction()"},
                 {"SIGFPE", &CrashByCalculating, "CrashByCalculating()"}};
    for (const auto& row : table) {
        testing::internal::CaptureStdout();
        Child child([&] {
            alarm(60);
            Own(factory->CreateSignalHandler())->Setup(nullptr, [](const BasicString& report) {
                std::cout << report << std::flush;
                EndChild(3);
            });
            CrashDeepDown(100, row.crash);
            return 0;
        });
        EXPECT_EQ(child.Wait(), 3);
        const std::string report = testing::internal::GetCapturedStdout();
        EXPECT_EQ(report.find("Signal " + row.signal + " occured.\r\nStacktrace:\r\n   at: "), 0U) << report;
        EXPECT_NE(report.find("   at: " + row.function + "\r\n"), std::string::npos) << report;
        // Two of the heading.
        EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 2 + 63) << report;
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)  // Their own frame comes first.
        EXPECT_EQ(report.find("StackTraceHandler"), std::string::npos) << report;
#endif
    }
}

TEST_F(SignalHandlerTest, SetUpInstallsTheHandlerAndNothingElse) {
    EXPECT_TRUE(SucceedsInChild([this] {
        void (*const throwCallback)() = [] {};
        const auto service = Own(factory->CreateSignalHandler());
        // Once before it is needed, since it loads a library.
        EXPECT_EQ(CallsOf("backtrace", [&] { service->Setup(throwCallback, nullptr); }).size(), 1U);
        EXPECT_EQ(SignalHandlerService::pThrowExceptionCallback, throwCallback);
        for (const int signal : {SIGSEGV, SIGILL, SIGFPE}) {
            struct sigaction action {};
            sigaction(signal, nullptr, &action);
            EXPECT_EQ(action.sa_flags & (SA_NODEFER | SA_ONSTACK | SA_RESETHAND | SA_RESTART | SA_SIGINFO), SA_SIGINFO);
            EXPECT_TRUE(sigisemptyset(&action.sa_mask));
        }
    }));
}

TEST_F(SignalHandlerTest, HandlerReturnsAndKeepsErrno) {
    static BasicString lastReport;
    // Other signals have no name; no frames, no lines.
    const Interposition untraced("backtrace", [](const auto& /*arguments*/) { return 0; });
    SignalHandlerService::pTerminateCallback = [](const BasicString& report) {
        lastReport = report;
        errno = EIO;
    };
    errno = EPERM;
    SignalHandlerService::StackTraceHandler(SIGTERM, nullptr, nullptr);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(lastReport, "Signal  occured.\r\nStacktrace:\r\n");
    // Nobody to be told.
    SignalHandlerService::pTerminateCallback = nullptr;
    SignalHandlerService::StackTraceHandler(SIGTERM, nullptr, nullptr);
}

// Has each crash become an exception that is its signal.
void InstallThrowHandler() {
    alarm(60);
    SignalHandlerService::pThrowExceptionCallback = [] { throw SignalHandlerService::exceptionCode; };
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = &SignalHandlerService::ThrowHandler;
    sigaction(SIGSEGV, &action, nullptr);
    sigaction(SIGFPE, &action, nullptr);
}

// The signal that `function` was ended by, or this one itself, if that returns.
template <typename Function>
int CaughtFrom(Function&& function) {
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
        SignalHandlerService::exceptionCode = 0;
        std::thread([] {
            // Again and again: the signal does not stay blocked.
            EXPECT_EQ(CaughtFrom([] {}), SIGSEGV);
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
// Return from where they were called, also when they were interrupted there; one with the stack pointer in between the
// multiples of 8 that calls need.
[[gnu::naked]] int LeafThatGoesOn(const int* /*where*/) { asm("ldr r1, [r0]\n\tmovs r0, #7\n\tbx lr"); }

[[gnu::naked]] int OddLeafThatGoesOn(const int* /*where*/) {
    asm("push {r4}\n\tldr r1, [r0]\n\tmovs r0, #7\n\tpop {r4}\n\tbx lr");
}

TEST(ThrowHandlerTest, CallbackThatReturnsGoesOnBehindTheInstruction) {
    EXPECT_TRUE(SucceedsInChild([] {
        InstallThrowHandler();
        static std::uintptr_t stackPointer = 1;
        for (const auto leaf : {&LeafThatGoesOn, &OddLeafThatGoesOn}) {
            SignalHandlerService::pThrowExceptionCallback = [] { asm volatile("mov %0, sp" : "=r"(stackPointer)); };
            EXPECT_EQ(leaf(nowhere), 7);
            EXPECT_EQ(stackPointer % 8, 0U);
        }
    }));
}
#endif

}  // namespace
