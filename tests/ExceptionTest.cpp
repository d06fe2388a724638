#include "support/PluginPath.h"
#include "support/Test.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>

using Kel::System::Core::Impl::BasicStringFormatExceptionHandler;

namespace {

// A literal null must not become a name.
static_assert(!std::is_constructible_v<BasicString, std::nullptr_t>);

enum class Color : std::uint8_t { Green = 7 };

VeException MakeVeException() { return VeException("outer {0}", "text"); }

// A C++ name that backtraces of this executable show, since it exports its symbols.
[[gnu::noinline]] BasicString TraceOfThisFunction() { return MakeVeException().GetStackTrace(); }

// A type whose name is not the compiler's.
class NamedType : public std::type_info {
public:
    explicit NamedType(const char* name) : std::type_info(name) {}
};

TEST(MessageTest, FillsPlaceholders) {
    const char text[] = "text";
    const char* const null = nullptr;
    const std::pair<Exception, const char*> table[] = {
        {Exception("no placeholder"), "no placeholder"},
        {Exception("{1} {0} {1}", 1, 2U), "2 1 2"},
        {Exception("{} {:d} {:x}", -1, 9223372036854775807LL, 255UL), "-1 9223372036854775807 ff"},
        {Exception("{}{}{}", 'c', true, 1.5F), "ctrue1.5"},
        {Exception("{} {} {} {}", text, std::string("a"), BasicString("b"), std::string_view("cd", 1)), "text a b c"},
        {Exception("{} {:d}", Color::Green, Color::Green), "7 7"},
        {Exception("{} {}", nullptr, reinterpret_cast<int*>(0x1f)), "0x0 0x1f"},
        {Exception("{0}", "brace } and {0}"), "brace } and {0}"},
        {Exception(FinishedText{"{0} {"}), "{0} {"},
    };
    for (const auto& [exception, message] : table) {
        EXPECT_EQ(exception.GetMessage(), message);
        EXPECT_STREQ(exception.what(), message);
    }
    // The formatting library's own words end the message; they are not ours to fix.
    const struct {
        const char* format;
        void (*throwIt)(const char*);
    } broken[] = {
        {"{0} {1} {", [](const char* format) { throw VeException(format, 1); }},
        {"{1}", [](const char* format) { throw VeException(format, 1); }},
        {"{:d}", [](const char* format) { throw NotExistException(format, "text"); }},
        {"}", [](const char* format) { throw Exception(format); }},
    };
    for (const auto& row : broken) {
        try {
            row.throwIt(row.format);
            ADD_FAILURE() << "threw nothing";
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.GetTypeCode(), 0);
            const std::string ourWords =
                std::string("Invalid String::Format(..) operation occurs with format string '") + row.format + "': ";
            EXPECT_EQ(exception.GetMessage().rfind(ourWords, 0), 0U) << exception.GetMessage();
            EXPECT_GT(exception.GetMessage().size(), ourWords.size());
        }
    }
    EXPECT_TRUE(
        Throws<Exception>([&] { throw VeException("{0}", null); },
                          "Invalid String::Format(..) operation occurs with format string '{0}': string pointer "
                          "is null"));
    EXPECT_TRUE(Throws<Exception>([&] { throw VeException(null); },
                                  "Invalid String::Format(..) operation occurs with format string '': format string is "
                                  "null"));
    EXPECT_TRUE(
        Throws<Exception>([&] { BasicStringFormatExceptionHandler::Invoke("{0", "} is {} missing"); },
                          "Invalid String::Format(..) operation occurs with format string '{0': } is {} missing"));
}

TEST(ExceptionTest, FormatsWithInnerExceptions) {
    const auto innermost = std::make_shared<Exception>("innermost");
    const auto inner = std::make_shared<Exception>(innermost, "inner {0}", 1);
    const Exception outer(FinishedText{"outer"}, inner);
    EXPECT_EQ(
        outer.ToString(),
        "outer (Kel::Exception)\nInnerException:\n   inner 1 (Kel::Exception)\n   InnerException:\n      innermost "
        "(Kel::Exception)");
    EXPECT_EQ(outer.Format(2, false), "      outer (Kel::Exception)");
    EXPECT_EQ(outer.Format(-1, false), "outer (Kel::Exception)");
}

TEST(ExceptionTest, ClonesPlainly) {
    const auto inner = std::make_shared<Exception>("inner");
    const AccessDeniedException exception(FinishedText{"{0} {"}, inner);
    const std::shared_ptr<Exception> clone = exception.Clone();
    EXPECT_EQ(typeid(*clone), typeid(Exception));
    EXPECT_EQ(clone->GetTypeCode(), 0);
    EXPECT_EQ(clone->GetMessage(), "{0} {");
    EXPECT_EQ(clone->GetInnerException(), inner);
}

TEST(ExceptionTest, HasATypeCodeForEachType) {
    const std::vector codes{VeException("").GetTypeCode(), NotExistException("").GetTypeCode(),
                            AlreadyExistsException("").GetTypeCode(), InvalidPathException("").GetTypeCode(),
                            AccessDeniedException("").GetTypeCode()};
    EXPECT_EQ(codes, (std::vector{256, 257, 258, 259, 260}));
}

TEST(VeExceptionTest, FormatsWithStackTraceAndInnerException) {
    const auto inner = std::make_shared<VeException>("inner {0}", 1);
    const NotExistException outer(inner, "outer {0}", "{");
    const std::string withoutInner =
        "Exception of type 'Kel::System::Ve::Exceptions::NotExistException' was thrown\nouter {\n" +
        outer.GetStackTrace() + "\n";
    EXPECT_EQ(outer.Format(3, false), withoutInner);
    EXPECT_EQ(outer.ToString(), withoutInner +
                                    "---\nInner exception: Exception of type "
                                    "'Kel::System::Ve::Exceptions::VeException' was thrown\ninner 1\n" +
                                    inner->GetStackTrace() + "\n");
}

TEST(VeExceptionTest, CapturesAStackTrace) {
    const BasicString trace = TraceOfThisFunction();
    EXPECT_EQ(trace.rfind("   at: Kel::System::Ve::Exceptions::VeException::VeException(", 0), 0U) << trace;
    EXPECT_NE(trace.find("   at: testing::Test::Run()\r\n"), BasicString::npos) << trace;
    EXPECT_EQ(trace.find("CreateStackTrace"), BasicString::npos) << trace;
    EXPECT_EQ(trace.substr(trace.size() - 2), "\r\n");
}

[[gnu::noinline]] BasicString TraceAtDepth(int depth) {
    return depth == 0 ? TraceOfThisFunction() : TraceAtDepth(depth - 1) + "";
}

TEST(VeExceptionTest, CapturesNoMoreThan64Frames) {
    const BasicString trace = TraceAtDepth(100);
    EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 63);
}

// What is known of addresses is forgotten when any library is unloaded.
void UnloadSomeLibrary() { EXPECT_EQ(dlclose(dlopen(PluginPath().c_str(), RTLD_NOW)), 0); }

TEST(VeExceptionTest, EndsTheStackTraceWhereNothingIsKnown) {
    for (const int frames : {0, 1}) {
        const FailingCall call("backtrace", frames, 0);
        EXPECT_EQ(MakeVeException().GetStackTrace(), "");
    }
    for (const int known : {0, 2}) {
        UnloadSomeLibrary();
        const FailingCall call("dladdr", 0, 0, known);
        const BasicString trace = MakeVeException().GetStackTrace();
        EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), known) << trace;
    }
}

TEST(VeExceptionTest, ShowsModuleAndAddressOfFramesWithoutAName) {
    UnloadSomeLibrary();
    {
        const FailingCall call("__cxa_demangle", 0, 0);
        const BasicString trace = MakeVeException().GetStackTrace();
        const BasicString firstLine = trace.substr(0, trace.find("\r\n"));
        EXPECT_NE(firstLine.find("libKel.System.Ve.so"), BasicString::npos) << trace;
        EXPECT_EQ(firstLine.back(), ']') << trace;
    }
    UnloadSomeLibrary();
    {
        // That of the C runtime's start-up code has no C++ name.
        const FailingCall call("backtrace_symbols", 0, ENOMEM);
        const BasicString trace = MakeVeException().GetStackTrace();
        EXPECT_NE(trace.find("   at: \r\n"), BasicString::npos) << trace;
    }
    UnloadSomeLibrary();
}

TEST(VeExceptionTest, NamesEachAddressOnceUntilALibraryIsUnloaded) {
    UnloadSomeLibrary();
    BasicString traces[3];
    bool names[3];
    for (int i = 0; i < 3; ++i) {
        names[i] = FailingCall::HappensIn([&] { traces[i] = MakeVeException().GetStackTrace(); }, "dladdr");
        if (i == 1) {
            UnloadSomeLibrary();
        }
    }
    EXPECT_EQ(traces[0], traces[1]);
    EXPECT_EQ(traces[0], traces[2]);
    EXPECT_TRUE(names[0]);
    EXPECT_FALSE(names[1]);
    EXPECT_TRUE(names[2]);
}

TEST(VeExceptionTest, WhoeverFindsTheKnownNamesInUseDoesWithout) {
    UnloadSomeLibrary();
    BasicString inner;
    const FailingCall call("dladdr", [&] { inner = MakeVeException().GetStackTrace(); });
    const BasicString outer = MakeVeException().GetStackTrace();
    EXPECT_NE(inner.find("VeException::VeException("), BasicString::npos) << inner;
    EXPECT_NE(outer.find("VeException::VeException("), BasicString::npos) << outer;
}

TEST(RuntimeTypeInfoTest, NamesTypes) {
    EXPECT_EQ(RuntimeTypeInfo::GetTypeName(typeid(VeException)), "Kel::System::Ve::Exceptions::VeException");
    EXPECT_EQ(RuntimeTypeInfo::GetTypeName(NamedType("*i")), "int");
    {
        // What some compilers' names look like.
        const FailingCall call("__cxa_demangle",
                               reinterpret_cast<std::intptr_t>(strdup("class A<struct B, enum C>::class D")), 0);
        EXPECT_EQ(RuntimeTypeInfo::GetTypeName(typeid(int)), "A<B, C>::D");
    }
    EXPECT_TRUE(Throws<Exception>([] { RuntimeTypeInfo::GetTypeName(NamedType("*no{0}name")); },
                                  "Demangling of type name 'no{0}name' failed."));
}

TEST(RuntimeTypeInfoTest, DemanglesSymbols) {
    EXPECT_EQ(RuntimeTypeInfo::DemangleSymbol("_ZN3Kel9Exception5CloneEv"), "Kel::Exception::Clone()");
    EXPECT_EQ(RuntimeTypeInfo::DemangleSymbol("main"), "");
    EXPECT_EQ(RuntimeTypeInfo::DemangleSymbol(nullptr), "");
}

}  // namespace
