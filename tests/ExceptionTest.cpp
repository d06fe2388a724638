#include "support/Test.h"

#include <dlfcn.h>

namespace {

// A literal null must not become a name.
static_assert(!std::is_constructible_v<BasicString, std::nullptr_t>);

enum class Color : std::uint8_t { Green = 7 };

TEST(MessageTest, FillsPlaceholders) {
    EXPECT_STREQ(Exception("{1} {0} {1}", 1, 2U).what(), "2 1 2");
    EXPECT_STREQ(Exception("{} {:d} {:x}", -1, 9223372036854775807LL, 255UL).what(), "-1 9223372036854775807 ff");
    EXPECT_STREQ(Exception("{}{}{}", 'c', true, 1.5F).what(), "ctrue1.5");
    EXPECT_STREQ(Exception("{} {} {}", "text", BasicString("b"), std::string_view("cd", 1)).what(), "text b c");
    EXPECT_STREQ(Exception("{} {} {}", Color::Green, nullptr, reinterpret_cast<int*>(0x1f)).what(), "7 0x0 0x1f");
}

TEST(MessageTest, BrokenFormatIsQuoted) {
    const std::string refusal = "Exception: Invalid String::Format(..) operation occurs with format string '";
    const char* const null = nullptr;
    EXPECT_TRUE(ComesTo([&] { throw VeException("{0}", null); }, refusal + "{0}': string pointer is null"));
    EXPECT_TRUE(ComesTo([&] { throw VeException(null); }, refusal + "': format string is null"));
}

TEST(ExceptionTest, FormatsWithInnerExceptions) {
    const auto innermost = std::make_shared<Exception>("innermost");
    const auto inner = std::make_shared<Exception>(innermost, "inner {0}", 1);
    const auto outer = std::make_shared<Exception>(inner, "outer");
    const std::string text =
        "outer (Kel::Exception)\n"
        "InnerException:\n   inner 1 (Kel::Exception)\n"
        "   InnerException:\n      innermost (Kel::Exception)";
    EXPECT_EQ(outer->ToString(), text);
    EXPECT_EQ(outer->Format(-1, false), "outer (Kel::Exception)");
    const NotExistException outermost(outer, "{0}", "{");
    const std::string ofType = "Exception of type 'Kel::System::Ve::Exceptions::NotExistException' was thrown\n{\n";
    EXPECT_EQ(outermost.Format(3, false), ofType + outermost.GetStackTrace() + "\n");
    EXPECT_EQ(outermost.ToString(), outermost.Format(0, false) + "---\nInner exception: " + text);
}

TEST(ExceptionTest, ClonesPlainlyAndHasATypeCodeForEachType) {
    const auto inner = std::make_shared<Exception>("inner");
    const std::shared_ptr<Exception> clone = AccessDeniedException(FinishedText{"{0} {"}, inner).Clone();
    EXPECT_EQ(clone->Format(0, false), "{0} { (Kel::Exception)");
    EXPECT_EQ(clone->GetInnerException(), inner);
    EXPECT_EQ(clone->GetTypeCode(), 0);
    EXPECT_EQ(VeException("").GetTypeCode(), 256);
    EXPECT_EQ(NotExistException("").GetTypeCode(), 257);
    EXPECT_EQ(AlreadyExistsException("").GetTypeCode(), 258);
    EXPECT_EQ(InvalidPathException("").GetTypeCode(), 259);
    EXPECT_EQ(AccessDeniedException("").GetTypeCode(), 260);
}

// The stack trace when these are the return addresses, the first one in the function that takes it.
BasicString TraceOf(const std::vector<const char*>& frames) {
    const Interposition backtrace("backtrace", [&](const Interposition::Arguments& arguments) {
        EXPECT_EQ(arguments[1], 64);
        std::copy(frames.begin(), frames.end(), Interposition::Pointer<const char*>(arguments[0]));
        return static_cast<std::intptr_t>(frames.size());
    });
    return VeException("").GetStackTrace();
}

// A function, and the line of a frame in it.
const char* const function = reinterpret_cast<const char*>(&ServiceFactory::CreateServiceFactory);
constexpr char line[] = "   at: Kel::System::Ve::Internal::ServiceFactory::CreateServiceFactory()\r\n";

TEST(StackTraceTest, NamesTheFunctionsOfTheCallsUntilNothingIsKnown) {
    const char inNoModule = 0;
    EXPECT_EQ(TraceOf({}), "");
    EXPECT_EQ(TraceOf({function, function + 1, function + 2, &inNoModule, function + 1}), BasicString(line) + line);
    // Behind the last instruction of another function, which is a call that never returns.
    EXPECT_NE(TraceOf({function, function - reinterpret_cast<std::uintptr_t>(function) % 2}), line);
    // Not a C++ function: module and address.
    EXPECT_NE(TraceOf({function, reinterpret_cast<const char*>(&getpid) + 1}).find("libc.so"), BasicString::npos);
    // Only the function that takes the trace is left out.
    EXPECT_NE(VeException("").GetStackTrace().find("VeException::VeException("), BasicString::npos);
    // A long one needs too much of the stack to be demangled.
    const std::string tooLong = "_Z195" + std::string(195, 'a') + "v";
    const Interposition symbols("dladdr", [&](const Interposition::Arguments& arguments) {
        Interposition::Pointer<Dl_info>(arguments[1])->dli_sname = tooLong.c_str();
        return 1;
    });
    const Interposition noMemoryForModuleAndAddress("backtrace_symbols", [](const auto& /*arguments*/) { return 0; });
    EXPECT_EQ(TraceOf({function, function + 5}), "   at: \r\n");
}

TEST(StackTraceTest, NamesEachAddressOnceUntilALibraryIsUnloaded) {
    const auto take = [] { EXPECT_EQ(TraceOf({function, function + 3}), line); };
    take();
    EXPECT_EQ(dlclose(dlopen(PluginPath().c_str(), RTLD_NOW)), 0);
    EXPECT_EQ(CallsOf("dladdr", take).size(), 1U);
    EXPECT_EQ(CallsOf("dladdr", take).size(), 0U);
    // Who finds the known names in use, as in a crash in here, does without.
    EXPECT_EQ(CountCallsOfTwo("dladdr", [] { TraceOf({function, function + 3, function + 4}); }), 1 + 2);
}

}  // namespace
