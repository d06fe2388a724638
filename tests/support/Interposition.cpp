#include "Interposition.h"

#include <gtest/gtest.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

// Addresses and machine words are numbers in here.
// NOLINTBEGIN(performance-no-int-to-ptr)

namespace {

#if __SIZEOF_POINTER__ == 8
using Relocation = Elf64_Rela;
constexpr int relocationTables[][2] = {{DT_RELA, DT_RELASZ}, {DT_JMPREL, DT_PLTRELSZ}};
std::size_t SymbolOf(const Relocation& relocation) { return ELF64_R_SYM(relocation.r_info); }
#else
using Relocation = Elf32_Rel;
constexpr int relocationTables[][2] = {{DT_REL, DT_RELSZ}, {DT_JMPREL, DT_PLTRELSZ}};
std::size_t SymbolOf(const Relocation& relocation) { return ELF32_R_SYM(relocation.r_info); }
#endif

std::uintptr_t Find(const ElfW(Dyn) * dynamic, int tag) {
    while (dynamic->d_tag != tag && dynamic->d_tag != DT_NULL) {
        ++dynamic;
    }
    return dynamic->d_un.d_ptr;
}

// Where files or times have 64 bits, a function may have another name.
bool IsNameOf(const std::string& symbol, const std::string& function) {
    return symbol == function || symbol == function + "64" || symbol == "__" + function + "64" ||
           symbol == "__" + function + "_time64" || symbol == "__" + function + "64_time64";
}

// The places where the library keeps the address of a function that it calls.
template <typename Function>
std::vector<Function*> FindEntries(const char* function) {
    const link_map* library = _r_debug.r_map;
    while (std::string_view(library->l_name).find("/libKel.System.Ve.so") == std::string_view::npos) {
        library = library->l_next;
    }
    const auto* const symbols = reinterpret_cast<const ElfW(Sym)*>(Find(library->l_ld, DT_SYMTAB));
    const auto* const names = reinterpret_cast<const char*>(Find(library->l_ld, DT_STRTAB));
    std::vector<Function*> entries;
    for (const auto& [table, size] : relocationTables) {
        const auto* const first = reinterpret_cast<const Relocation*>(Find(library->l_ld, table));
        for (const auto* entry = first; entry != first + Find(library->l_ld, size) / sizeof *first; ++entry) {
            if (SymbolOf(*entry) != 0 && IsNameOf(names + symbols[SymbolOf(*entry)].st_name, function)) {
                entries.push_back(reinterpret_cast<Function*>(library->l_addr + entry->r_offset));
            }
        }
    }
    if (entries.empty()) {
        throw std::logic_error(std::string("the library does not call ") + function);
    }
    return entries;
}

}  // namespace

std::array<std::atomic<const Interposition*>, 3> Interposition::entered;

template <std::size_t index>
std::intptr_t Interposition::Enter(std::intptr_t a, std::intptr_t b, std::intptr_t c, std::intptr_t d, std::intptr_t e,
                                   std::intptr_t f, std::intptr_t g, std::intptr_t h) {
    return entered[index].load()->replacement({a, b, c, d, e, f, g, h});
}

Interposition::Interposition(const char* function, Replacement newReplacement)
    : replacement(std::move(newReplacement)), entries(FindEntries<Function>(function)), original(*entries.front()) {
    constexpr Function enter[] = {&Enter<0>, &Enter<1>, &Enter<2>};
    while (entered.at(index) != nullptr) {
        ++index;
    }
    entered[index] = this;
    SetEntries(enter[index]);
}

Interposition::~Interposition() {
    SetEntries(original);
    entered[index] = nullptr;
}

std::intptr_t Interposition::CallThrough(const Arguments& arguments) const {
    const auto& [a, b, c, d, e, f, g, h] = arguments;
    return original(a, b, c, d, e, f, g, h);
}

void Interposition::SetEntries(Function function) const {
    const auto pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    for (Function* const entry : entries) {
        // The loader has made the table read-only.
        auto* const page = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(entry) / pageSize * pageSize);
        if (mprotect(page, pageSize, PROT_READ | PROT_WRITE) != 0) {
            throw std::system_error(errno, std::generic_category(), "mprotect");
        }
        __atomic_store_n(entry, function, __ATOMIC_SEQ_CST);
    }
}

std::vector<Interposition::Arguments> CallsOf(const char* function, const std::function<void()>& operation) {
    std::mutex mutex;
    std::vector<Interposition::Arguments> calls;
    const Interposition recorder(function, [&](const Interposition::Arguments& arguments) {
        {
            const std::lock_guard guard(mutex);
            calls.push_back(arguments);
        }
        return recorder.CallThrough(arguments);
    });
    operation();
    return calls;
}

int CountCallsOfTwo(const char* function, const std::function<void()>& operation) {
    int calls = 0;
    const Interposition call(function, [&](const Interposition::Arguments& arguments) {
        if (++calls == 1) {
            operation();
        }
        return call.CallThrough(arguments);
    });
    operation();
    return calls;
}

namespace {

// What a function returns that fails with an error; the functions that leave it in errno find it there.
std::intptr_t FailureOf(std::string_view function, int errorNumber) {
    if (function.substr(0, 8) == "pthread_") {
        errno = EACCES;
        return errorNumber != 0 ? errorNumber : EINVAL;
    }
    errno = errorNumber != 0 ? errorNumber : EACCES;
    static const std::set<std::string_view> returnNull{"sem_open", "fopen", "fdopen", "dlopen",
                                                       "lttng_load_session_attr_create"};
    if (returnNull.count(function) != 0) {
        return 0;
    }
    return function.substr(0, 6) == "lttng_" ? -errno : -1;
}

}  // namespace

FailingCall::FailingCall(const char* function, int skip, int errorNumber)
    : name(function), remaining(skip), interposition(function, [this, errorNumber](const auto& arguments) {
          if (std::this_thread::get_id() != thread || remaining < 0 || remaining-- > 0) {
              return interposition.CallThrough(arguments);
          }
          return FailureOf(name, errorNumber);
      }) {}

FailingCall::~FailingCall() {
    if (remaining >= 0) {
        ADD_FAILURE() << name << " was not called";
    }
}

// NOLINTEND(performance-no-int-to-ptr)

namespace {

// How many allocations of this thread succeed before one fails; negative when none is to fail, or one has.
thread_local int allocationsBeforeFailure = -1;
std::atomic<long> madeAllocations{0};
std::atomic<long> deletedAllocations{0};

}  // namespace

FailingAllocation::FailingAllocation(int skip) { allocationsBeforeFailure = skip; }

FailingAllocation::~FailingAllocation() { allocationsBeforeFailure = -1; }

bool FailingAllocation::HasHappened() { return allocationsBeforeFailure < 0; }

long MadeAllocations() { return madeAllocations; }

long LiveAllocations() { return madeAllocations - deletedAllocations; }

// NOLINTBEGIN(cppcoreguidelines-no-malloc): this is what operator new is made of.
// NOLINTNEXTLINE(misc-new-delete-overloads): of the other forms, the library's own end here.
void* operator new(std::size_t size) {
    void* const memory = allocationsBeforeFailure >= 0 && allocationsBeforeFailure-- == 0 ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    ++madeAllocations;
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void operator delete(void* memory) noexcept {
    deletedAllocations += memory != nullptr ? 1 : 0;
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

void operator delete(void* memory, const std::nothrow_t&) noexcept { operator delete(memory); }
// NOLINTEND(cppcoreguidelines-no-malloc)
