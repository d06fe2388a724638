#include "Preemption.h"

#include "Machine.h"

#include <stdio.h>

#include <algorithm>
#include <sstream>
#include <string>

namespace {

using State = Finding::State;

struct Model {
    const char* name;
    /// What a kernel is configured with that uses it unless it is told otherwise.
    const char* option;
    State state;
    const char* meaning;
};

// The lazy model spares normal threads only: a real-time thread preempts as it does in the full one.
constexpr Model models[] = {
    {"none", "CONFIG_PREEMPT_NONE=y", State::Missing, "nowhere within system calls"},
    {"voluntary", "CONFIG_PREEMPT_VOLUNTARY=y", State::Missing, "at few places within system calls"},
    {"full", "CONFIG_PREEMPT=y", State::Weak, "everywhere but in interrupts and while spinlocks are held"},
    {"lazy", "CONFIG_PREEMPT_LAZY=y", State::Weak, "everywhere but in interrupts and while spinlocks are held"},
};

// Null when there is none.
template <class Predicate>
const Model* FindModel(Predicate predicate) {
    const auto* const model = std::find_if(std::begin(models), std::end(models), predicate);
    return model != std::end(models) ? model : nullptr;
}

const Model* FindModelByName(const std::string& name) {
    return FindModel([&](const Model& model) { return name == model.name; });
}

const Model* InUse() {
    // As in "none voluntary (full)".
    const std::string names = FirstLine("/sys/kernel/debug/sched/preempt");
    const auto begin = names.find('(') + 1;
    return FindModelByName(names.substr(begin, names.find(')') - begin));
}

const Model* OnCommandLine() {
    const Model* last = nullptr;
    std::istringstream words(FirstLine("/proc/cmdline"));
    // What follows the dashes is for the first process.
    for (std::string word; words >> word && word != "--";) {
        if (word.rfind("preempt=", 0) == 0) {
            const Model* const model = FindModelByName(word.substr(8));
            last = model != nullptr ? model : last;
        }
    }
    return last;
}

const Model* Configured() {
    const Model* configured = nullptr;
    FILE* const lines =
        popen(R"sh(zcat /proc/config.gz 2>/dev/null || cat "/boot/config-$(uname -r)" 2>/dev/null)sh", "r");
    if (lines != nullptr) {
        char line[512];
        while (fgets(line, sizeof line, lines) != nullptr) {
            const Model* const model =
                FindModel([&](const Model& candidate) { return line == std::string(candidate.option) + '\n'; });
            configured = model != nullptr ? model : configured;
        }
        pclose(lines);
    }
    return configured;
}

// Each counts only where those before it do not tell.
constexpr struct {
    const Model* (*find)();
    const char* name;
} sources[] = {
    {InUse, "/sys/kernel/debug/sched/preempt"},
    {OnCommandLine, "the kernel's command line"},
    {Configured, "the kernel's configuration, as its command line has no preempt="},
};

}  // namespace

Finding CheckPreemption() {
    const std::string kernel = KernelText();
    const auto isBuilt = [&](const char* model) { return kernel.find(model) != std::string::npos; };
    if (FirstLine("/sys/kernel/realtime") == "1" || isBuilt("PREEMPT_RT")) {
        return {State::Good, "PREEMPT_RT, fully preemptible"};
    }
    if (!isBuilt("PREEMPT_DYNAMIC")) {
        const Model* const model = FindModelByName(isBuilt("PREEMPT") ? "full" : "none");
        return {model->state,
                "built " + std::string(isBuilt("PREEMPT") ? "with" : "without") + " PREEMPT: " + model->meaning};
    }
    for (const auto& source : sources) {
        if (const Model* const model = source.find()) {
            return {model->state, std::string(model->name) + ": " + model->meaning + " (" + source.name + ")"};
        }
    }
    return {State::Unknown, "PREEMPT_DYNAMIC, and nothing that can be read tells the model"};
}
