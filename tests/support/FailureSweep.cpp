#include "FailureSweep.h"

#include "Child.h"
#include "PluginPath.h"
#include "UniqueName.h"

#include <Kel/Core/AppDomain.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <lttng/lttng.h>
#include <malloc.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <set>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>

using Kel::System::Ve::Internal::ServiceFactory;

namespace {

constexpr int endedByException = 99;

thread_local bool isScenario = false;

void Copy(std::array<char, 400>& place, const std::string& text) {
    place = {};
    text.copy(place.data(), place.size() - 1);
}

void Replace(std::string& text, const std::string& what, const std::string& with) {
    for (auto place = text.find(what); place != std::string::npos; place = text.find(what, place)) {
        text.replace(place, what.size(), with);
    }
}

using Functions = std::set<std::string_view>;

bool StartsWith(std::string_view text, std::string_view start) { return text.substr(0, start.size()) == start; }

// How the function tells that it failed.
std::intptr_t FailureOf(std::string_view function) {
    static const Functions byNull = {"sem_open", "fopen64", "fdopen",
                                     "dlopen",   "dladdr",  "backtrace",
                                     "fread",    "fwrite",  "lttng_load_session_attr_create"};
    if (byNull.count(function) != 0) {
        return 0;
    }
    return StartsWith(function, "pthread_") ? EINVAL : StartsWith(function, "lttng_") ? -LTTNG_ERR_INVALID : -1;
}

bool FailsAfterItsWork(std::string_view function) {
    static const Functions those = {"close",
                                    "fclose",
                                    "munlock",
                                    "pthread_mutex_unlock",
                                    "pthread_rwlock_unlock",
                                    "pthread_cond_signal",
                                    "pthread_cond_broadcast"};
    return those.count(function) != 0;
}

// What such a call does not give back is kept, with its memory.
bool GivesMemoryBack(std::string_view function) {
    return function == "pthread_attr_destroy" || function == "pthread_join" || function == "sem_close";
}

// A session daemon with two sessions, one of which takes snapshots, of no outputs.
bool AnswersAsDaemon(std::string_view function, void* argument, std::intptr_t& result) {
    // The attributes of a session to be loaded are in memory only.
    if (!StartsWith(function, "lttng_") || StartsWith(function, "lttng_load_session_attr_")) {
        return false;
    }
    result = function == "lttng_session_daemon_alive" ? 1 : 0;
    if (function == "lttng_list_sessions") {
        auto* const sessions = static_cast<lttng_session*>(std::calloc(2, sizeof(lttng_session)));
        std::strcpy(sessions[0].name, "normal");
        std::strcpy(sessions[1].name, "ring");
        sessions[1].snapshot_mode = 1;
        *static_cast<lttng_session**>(argument) = sessions;
        result = 2;
    } else if (function == "lttng_snapshot_list_output") {
        *static_cast<lttng_snapshot_output_list**>(argument) = nullptr;
    }
    return true;
}

// How many service objects there are, and how many entries the registry has for them, if there is a factory.
std::pair<int, int> LiveObjects() {
    const Kel::AppDomain* const domain = Kel::Singleton<Kel::AppDomain>::pInstance;
    const auto* const factory =
        domain != nullptr ? static_cast<ServiceFactory*>(domain->Find(typeid(ServiceFactory))) : nullptr;
    if (factory == nullptr) {
        return {0, 0};
    }
    return {static_cast<int>(factory->GetStatistics().GetNumOfObjectsCreated()),
            static_cast<int>(factory->GetRegisteredServiceObjects().size())};
}

// Another thread can have what it needs. With the first thread comes one of a sanitizer, perhaps.
void UseTheFactory() {
    std::thread([] { delete ServiceFactory::GetInstance()->CreateMutex(true); }).join();
}

}  // namespace

FailureSweep* FailureSweep::running = nullptr;

FailureSweep::FailureSweep(Of failing)
    : Steps(UniqueName("sweep"), htonl(INADDR_LOOPBACK)),
      of(failing),
      report(static_cast<Report*>(
          mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}

FailureSweep::~FailureSweep() { munmap(report, sizeof(Report)); }

CallWatcher::Verdict FailureSweep::Judge(const char* function, void* argument, std::intptr_t& result) {
    const int errorNumber = errno;
    const Context context = getpid() != processId ? Context::Child : isScenario ? Context::Scenario : Context::Thread;
    const int ofStep = context == Context::Thread ? stepOfThread : step;
    if (isScenario && std::strcmp(function, "pthread_create") == 0) {
        stepOfThread = ofStep;
    }
    // Sanitizers look at the stack of a thread that begins.
    const bool isSanitizers = context == Context::Thread && StartsWith(function, "pthread_attr_");
    if (ofStep != none && !isSanitizers && std::strcmp(function, leftOut) != 0) {
        Call* const place = &report->calls.at(static_cast<std::size_t>(report->callCount));
        ++report->callCount;
        *place = {context, ofStep, function, 0};
        place->occurrence = static_cast<int>(
            std::count_if(report->calls.begin(), place, [&](const Call& call) { return call.IsLike(*place); }));
        if (target != nullptr && target->IsLike(*place) && place->occurrence == target->occurrence) {
            report->failed = true;
            if (std::strcmp(function, "dlopen") == 0) {
                // Leaves the text of an error.
                dlopen("/no-such-library", RTLD_NOW);
            }
            result = FailureOf(function);
            errno = EACCES;
            return FailsAfterItsWork(function) ? Verdict::Contradicted : Verdict::Replaced;
        }
    }
    errno = errorNumber;
    if (AnswersAsDaemon(function, argument, result)) {
        return Verdict::Replaced;
    }
    if (std::strcmp(function, "open64") == 0 &&
        std::strcmp(static_cast<const char*>(argument), "/dev/cpu_dma_latency") == 0) {
        // Which is not everywhere, and not for everyone.
        result = open("/dev/null", O_RDWR | O_CLOEXEC);
        return Verdict::Replaced;
    }
    return Verdict::GoesThrough;
}

void FailureSweep::WaitForCall(const char* function) {
    const auto isIt = [=](const Call& call) {
        return call.function != nullptr && std::strcmp(call.function, function) == 0;
    };
    while (std::none_of(report->calls.begin(), report->calls.begin() + report->callCount, isIt)) {
        std::this_thread::yield();
    }
}

void FailureSweep::Do(const char* stepName, bool again, const std::function<void()>& operation,
                      const std::function<std::string()>& outcome) {
    const auto index = static_cast<std::size_t>(report->stepCount++);
    Step& record = report->steps.at(index);
    record = {stepName, {}, {}};
    const bool hadFailed = report->failed;
    const auto comesTo = [&] {
        step = static_cast<int>(index);
        try {
            operation();
            step = none;
            return outcome();
        } catch (const std::exception&) {
            step = none;
            return CurrentException();
        }
    };
    const auto objects = LiveObjects();
    Copy(record.outcome, comesTo());
    if (hadFailed || !report->failed || record.outcome == expected.at(index).outcome) {
        return;
    }
    if (const auto [count, entries] = LiveObjects(); objects != std::pair(count, entries)) {
        Copy(record.outcome, record.outcome.data() + (", objects: " + std::to_string(count - objects.first)) +
                                 ", entries: " + std::to_string(entries - objects.second));
    }
    if (again) {
        Copy(record.again, comesTo());
    }
}

void FailureSweep::EndProcess() {
    installed = nullptr;
    Copy(running->report->end, "ends the process with " + CurrentException());
    KEL_TESTS_END_CHILD(endedByException);
}

// What is kept for good, as the names in stack traces, is there after a few times, and the C library keeps seven blocks
// of each size at hand; for what is lost there is always more. What the first time comes to is reported.
void FailureSweep::RunUntilMemoryStays(const Scenario& scenario) {
    const Belongings before;
    const auto first = std::make_unique<Report>();
    std::string left;
    bool losesMemory = true;
    // A real loop, whatever the compiler may find better: those names are of where it is called.
    for (volatile int run = 1; run == 1 || (losesMemory && run <= 20); run = run + 1) {
        const long allocations = LiveAllocations();
        // Nothing where a sanitizer has taken the C library's place.
        const std::size_t bytes = mallinfo2().uordblks;
        report->callCount = 0;
        report->stepCount = 0;
        report->failed = false;
        leftOut = "";
        stepOfThread = none;
        installed = this;
        scenario.run(*this);
        installed = nullptr;
        losesMemory = run == 1 || LiveAllocations() > allocations || mallinfo2().uordblks > bytes;
        const std::string names = TakeNames();
        if (run == 1) {
            std::memcpy(static_cast<void*>(first.get()), report, sizeof(Report));
            left = names;
        }
    }
    left += losesMemory && (target == nullptr || !GivesMemoryBack(target->function)) ? ", memory" : "";
    UseTheFactory();
    left += before.More();
    std::memcpy(static_cast<void*>(report), first.get(), sizeof(Report));
    Copy(report->leftovers, left);
}

void FailureSweep::RunInChild(const Scenario& scenario, const Call* failing) {
    report->end = {};
    report->leftovers = {};
    target = failing;
    running = this;
    // Exceptions in the child need not find the names of the functions from here outwards again.
    const Kel::System::Ve::Exceptions::VeException warmUp("");
    Child child([&] {
        alarm(60);
        std::set_terminate(&EndProcess);
        processId = getpid();
        isScenario = true;
        UseTheFactory();
        RunUntilMemoryStays(scenario);
        return 0;
    });
    const int status = child.Wait();
    if (status == 128 + SIGALRM) {
        Copy(report->end, "hangs");
    } else if (status != 0 && status != endedByException) {
        Copy(report->end, "ends the process with status " + std::to_string(status));
    }
    TakeNames();
}

std::string FailureSweep::Outcome(const Call& call) const {
    std::string text = "nothing";
    // A scenario may end early.
    const auto count = std::min<std::ptrdiff_t>(report->stepCount, static_cast<std::ptrdiff_t>(expected.size()));
    const auto [wanted, actual] =
        std::mismatch(expected.begin(), expected.begin() + count, report->steps.begin(),
                      [](const Step& left, const Step& right) { return left.outcome == right.outcome; });
    if (report->end[0] != '\0') {
        text = report->end.data();
    } else if (wanted != expected.begin() + count) {
        text = wanted - expected.begin() != call.step ? std::string(actual->name) + ": " : "";
        text += actual->outcome.data();
        if (actual->again[0] != '\0' && actual->again != actual->outcome && actual->again != wanted->outcome) {
            text += std::string(", again: ") + actual->again.data();
        }
    }
    if (report->leftovers[0] != '\0') {
        text += std::string("; leaves ") + (report->leftovers.data() + 2);
    }
    Replace(text, Path("file"), "<file>");
    Replace(text, name, "<name>");
    Replace(text, PluginPath(), "<library>");
    if (const auto place = text.find("'0x"); place != std::string::npos) {
        text.replace(place, text.find('\'', place + 1) + 1 - place, "'<address>'");
    }
    return text;
}

std::string FailureSweep::Line(const Scenario& scenario, const Call& call, bool isNumbered) const {
    constexpr const char* wheres[] = {"", " in the thread", " in the child"};
    std::string function = of == Of::Allocations ? "allocation" : call.function;
    // Variants with larger numbers have this at the end of their names, on some machines.
    if (function.size() > 2 && function.compare(function.size() - 2, 2, "64") == 0) {
        function.resize(function.size() - 2);
    }
    return std::string(scenario.name) + " - " + expected.at(static_cast<std::size_t>(call.step)).name + " | " +
           function + (isNumbered ? " #" + std::to_string(call.occurrence + 1) : "") +
           wheres[static_cast<int>(call.context)] + " | ";
}

void FailureSweep::Run(const Scenario& scenario) {
    RunInChild(scenario, nullptr);
    EXPECT_STREQ(report->end.data(), "") << scenario.name;
    EXPECT_STREQ(report->leftovers.data(), "") << scenario.name;
    expected.assign(report->steps.begin(), report->steps.begin() + report->stepCount);
    for (const Step& record : expected) {
        if (of == Of::Calls && std::strcmp(record.outcome.data(), "done") != 0) {
            lines.push_back(std::string(scenario.name) + " - " + record.name + " | " + record.outcome.data());
        }
    }
    std::vector<Call> calls;
    std::copy_if(report->calls.begin(), report->calls.begin() + report->callCount, std::back_inserter(calls),
                 [this](const Call& call) {
                     return (std::strcmp(call.function, "operator new") == 0) == (of == Of::Allocations);
                 });
    // Not by their order in time, which for threads depends on chance.
    std::stable_sort(calls.begin(), calls.end(), [](const Call& left, const Call& right) {
        return std::tie(left.step, left.context) < std::tie(right.step, right.context);
    });
    std::vector<std::string> outcomes;
    for (const Call& call : calls) {
        RunInChild(scenario, &call);
        ++failures;
        EXPECT_TRUE(report->failed) << scenario.name << ": " << call.function;
        outcomes.push_back(Outcome(call));
    }
    for (std::size_t i = 0; i < calls.size(); ++i) {
        // How many there are may depend on the machine, if they all come to the same.
        bool isNumbered = false;
        for (std::size_t j = 0; j < calls.size(); ++j) {
            isNumbered = isNumbered || (of == Of::Calls && calls[j].IsLike(calls[i]) && outcomes[j] != outcomes[i]);
        }
        std::string line = Line(scenario, calls[i], isNumbered) + outcomes[i];
        if (std::find(lines.begin(), lines.end(), line) == lines.end()) {
            lines.push_back(std::move(line));
        }
    }
}
