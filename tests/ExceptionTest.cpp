#include "support/Test.h"

#include <dlfcn.h>

using Kel::System::Core::Impl::BasicStringFormatExceptionHandler;

namespace {

// A literal null must not become a name.
static_assert(!std::is_constructible_v<BasicString, std::nullptr_t>);

enum class Color : std::uint8_t { Green = 7 };

TEST(MessageTest, FillsPlaceholders) {
    const std::pair<Exception, const char*> table[] = {
        {Exception("{1} {0} {1}", 1, 2U), "2 1 2"},
        {Exception("{} {:d} {:x}", -1, 9223372036854775807LL, 255UL), "-1 9223372036854775807 ff"},
        {Exception("{}{}{}", 'c', true, 1.5F), "ctrue1.5"},
        {Exception("{} {} {}", "text", BasicString("b"), std::string_view("cd", 1)), "text b c"},
        {Exception("{} {:d}", Color::Green, Color::Green), "7 7"},
        {Exception("{} {}", nullptr, reinterpret_cast<int*>(0x1f)), "0x0 0x1f"},
        {Exception("{0}", "brace } and {0}"), "brace } and {0}"},
        {Exception(FinishedText{"{0} {"}), "{0} {"},
    };
    for (const auto& [exception, message] : table) {
        EXPECT_STREQ(exception.what(), message);
    }
}

TEST(MessageTest, BrokenFormatIsQuoted) {
    const std::string refusal = "Exception: Invalid String::Format(..) operation occurs with format string '";
    const char* const null = nullptr;
    EXPECT_TRUE(ComesTo([&] { throw VeException("{0}", null); }, refusal + "{0}': string pointer is null"));
    EXPECT_TRUE(ComesTo([&] { throw VeException(null); }, refusal + "': format string is null"));
    EXPECT_TRUE(ComesTo([] { BasicStringFormatExceptionHandler::Invoke("{0", "} {}"); }, refusal + "{0': } {}"));
    for (const char* const format : {"{0} {1} {2}", "{0} {", "{:d}", "}"}) {
        // The formatting library's own words end the message; they are not ours to fix.
        const std::string outcome = Operation([&] { throw NotExistException(format, "text", 1); }).Outcome();
        EXPECT_EQ(outcome.rfind(refusal + format + "': ", 0), 0U) << outcome;
    }
}

TEST(ExceptionTest, FormatsWithInnerExceptions) {
    const auto innermost = std::make_shared<Exception>("innermost");
    const auto inner = std::make_shared<Exception>(innermost, "inner {0}", 1);
    const Exception outer(FinishedText{"outer"}, inner);
    const std::string text = "outer (Kel::Exception)";
    EXPECT_EQ(outer.ToString(), text + "\nInnerException:\n   inner 1 (Kel::Exception)\n   InnerException:\n      " +
                                    innermost->ToString());
    EXPECT_EQ(outer.Format(2, false), "      " + text);
    EXPECT_EQ(outer.Format(-1, false), text);
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

TEST(VeExceptionTest, FormatsWithStackTraceAndInnerException) {
    const auto inner = std::make_shared<VeException>("inner {0}", 1);
    const NotExistException outer(inner, "outer {0}", "{");
    const std::string withoutInner =
        "Exception of type 'Kel::System::Ve::Exceptions::NotExistException' was thrown\nouter {\n" +
        outer.GetStackTrace() + "\n";
    EXPECT_EQ(outer.Format(3, false), withoutInner);
    EXPECT_EQ(outer.ToString(), withoutInner + "---\nInner exception: " + inner->ToString());
}

[[gnu::noinline]] BasicString TraceAtDepth(int depth) {
    const BasicString trace = depth == 0 ? VeException("").GetStackTrace() : TraceAtDepth(depth - 1);
    return trace.substr(0);
}

std::ptrdiff_t CountLines(const BasicString& text) { return std::count(text.begin(), text.end(), '\n'); }

// What is known of addresses is forgotten when any library is unloaded.
void UnloadSomeLibrary() { EXPECT_EQ(dlclose(dlopen(PluginPath().c_str(), RTLD_NOW)), 0); }

class StackTraceTest : public testing::Test {
protected:
    StackTraceTest() { UnloadSomeLibrary(); }
    ~StackTraceTest() override { UnloadSomeLibrary(); }
};

TEST_F(StackTraceTest, NamesUpTo63Frames) {
    const BasicString trace = TraceAtDepth(0);
    // The sanitizers put a backtrace of their own between, which is a frame, too.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(trace.find("   at: Kel::System::Ve::Exceptions::VeException::VeException("), 0U) << trace;
#endif
    EXPECT_NE(trace.find("   at: testing::Test::Run()\r\n"), BasicString::npos) << trace;
    EXPECT_EQ(CountLines(TraceAtDepth(100)), 63);
}

TEST_F(StackTraceTest, EndsWhereNothingIsKnown) {
    for (const int known : {0, 1, 2}) {
        UnloadSomeLibrary();
        int left = known;
        const Interposition symbols("dladdr", [&](const Interposition::Arguments& arguments) {
            return left-- != 0 ? symbols.CallThrough(arguments) : 0;
        });
        EXPECT_EQ(CountLines(TraceAtDepth(0)), known);
        const Interposition frames("backtrace", [&](const Interposition::Arguments&) { return known % 2; });
        EXPECT_EQ(TraceAtDepth(0), "");
    }
}

TEST_F(StackTraceTest, FrameWithoutANameHasModuleAndAddressOrNothing) {
    const auto null = [](const Interposition::Arguments&) { return 0; };
    const Interposition names("__cxa_demangle", null);
    const BasicString line = TraceAtDepth(0).substr(0, TraceAtDepth(0).find("]\r\n"));
    EXPECT_NE(line.find("libKel.System.Ve.so"), BasicString::npos) << line;
    UnloadSomeLibrary();
    const Interposition modules("backtrace_symbols", null);
    EXPECT_EQ(TraceAtDepth(0).find("   at: \r\n   at: \r\n"), 0U);
}

TEST_F(StackTraceTest, NamesEachAddressOnceUntilALibraryIsUnloaded) {
    int named = 0;
    const Interposition symbols("dladdr", [&](const Interposition::Arguments& arguments) {
        // Who finds the known names in use, as in a crash in here, does without.
        EXPECT_TRUE(named++ > 0 || TraceAtDepth(0).find("VeException(") != BasicString::npos);
        return symbols.CallThrough(arguments);
    });
    BasicString traces[3];
    // Not to be unrolled: all three are of the same call.
    for (volatile int i = 0; i < 3; i = i + 1) {
        named = i;
        traces[i] = TraceAtDepth(0);
        // The first and the third time.
        EXPECT_EQ(named > i, i != 1);
        if (i == 1) {
            UnloadSomeLibrary();
        }
    }
    EXPECT_TRUE(traces[0] == traces[1] && traces[0] == traces[2]);
}

// A type whose name is not the compiler's.
class NamedType : public std::type_info {
public:
    explicit NamedType(const char* name) : std::type_info(name) {}
};

TEST(RuntimeTypeInfoTest, NamesTypesAndSymbols) {
    EXPECT_EQ(RuntimeTypeInfo::GetTypeName(NamedType("**i")), "int");
    EXPECT_TRUE(ComesTo([] { return RuntimeTypeInfo::GetTypeName(NamedType("*no{0}name")); },
                        "Exception: Demangling of type name 'no{0}name' failed."));
    EXPECT_EQ(RuntimeTypeInfo::DemangleSymbol("_ZN3Kel9Exception5CloneEv"), "Kel::Exception::Clone()");
    EXPECT_EQ(RuntimeTypeInfo::DemangleSymbol("main"), "");
    // What some compilers' names look like.
    const Interposition names("__cxa_demangle", [](const Interposition::Arguments&) {
        return reinterpret_cast<std::intptr_t>(strdup("class A<struct B, enum C>::class D"));
    });
    EXPECT_EQ(RuntimeTypeInfo::GetTypeName(typeid(int)), "A<B, C>::D");
}

}  // namespace
