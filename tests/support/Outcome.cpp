#include "Outcome.h"

#include "Test.h"

#include <regex>
#include <set>

std::string Operation::Outcome() const {
    try {
        return outcome();
    } catch (const std::exception&) {
        return CurrentException();
    }
}

namespace {

// Returns the function that the stack trace names first of the library's, if that is not the operation that the message
// names, which has failed. Without optimisation, helpers of the operation's come first.
std::string Misnamed([[maybe_unused]] const Exception& exception) {
#ifdef NDEBUG
    const auto* const failure = dynamic_cast<const VeException*>(&exception);
    const BasicString& message = exception.GetMessage();
    const std::string operation = message.substr(0, message.find(": "));
    // These are named by what they are made of.
    const std::set<std::string> otherwise{"WaitInfinite", "ChangeName", "ChangeCpuAffinity", "Close"};
    if (failure == nullptr || operation.find_first_of(" '") != std::string::npos || otherwise.count(operation) != 0) {
        return "";
    }
    std::smatch first;
    const BasicString& trace = failure->GetStackTrace();
    std::regex_search(trace, first, std::regex("   at: Kel::System::Ve::Internal::([^(]*)"));
    const std::string function = first[1];
    if (function.substr(function.rfind(':') + 1) != operation) {
        return " thrown in '" + function + "'";
    }
#endif
    return "";
}

}  // namespace

std::string Operation::CurrentException() {
    try {
        throw;
    } catch (const Exception& exception) {
        const BasicString type = RuntimeTypeInfo::GetTypeName(typeid(exception));
        return type.substr(type.rfind(':') + 1) + Misnamed(exception) + ": " + exception.GetMessage();
    } catch (const std::exception& exception) {
        return exception.what();
    }
}

namespace {

std::string OutcomeOf(const Failure& failure) {
    const FailingCall call(failure.call, failure.skip, failure.errorNumber);
    return failure.operation.Outcome();
}

std::string Belongings() {
    const auto objects = ServiceFactory::GetInstance()->GetStatistics().GetNumOfObjectsCreated();
    return std::to_string(objects) + " objects, " + std::to_string(OpenDescriptors()) + " descriptors";
}

}  // namespace

void ExpectFailures(const std::vector<Failure>& failures) {
    for (const Failure& failure : failures) {
        SCOPED_TRACE(failure.call);
        const std::string before = Belongings();
        std::smatch end;
        if (std::regex_match(failure.outcome, end, std::regex("ends the process: (\\w+): (.*)"))) {
            // What terminate writes, and brackets have no other meaning.
            const std::string text = std::regex_replace(end[2].str(), std::regex("[()]"), "[$&]");
            EXPECT_EXIT(OutcomeOf(failure), testing::KilledBySignal(SIGABRT), end[1].str() + "'\n.*: +" + text);
        } else {
            EXPECT_EQ(OutcomeOf(failure), failure.outcome);
        }
        EXPECT_EQ(Belongings(), before);
    }
}

testing::AssertionResult ComesTo(const Operation& operation, const std::string& outcome) {
    const std::string actual = operation.Outcome();
    return (actual == outcome ? testing::AssertionSuccess() : testing::AssertionFailure()) << actual;
}

void ExpectBadAlloc(const std::function<void()>& operation) {
    // What is made once and stays.
    operation();
    const long before = LiveAllocations();
    const std::ptrdiff_t descriptorsBefore = OpenDescriptors();
    bool hasHappened = true;
    for (int skip = 0; hasHappened; ++skip) {
        bool isTold = false;
        {
            const FailingAllocation allocation(skip);
            try {
                operation();
            } catch (const std::bad_alloc&) {
                isTold = true;
            }
            hasHappened = FailingAllocation::HasHappened();
        }
        EXPECT_EQ(isTold, hasHappened) << "allocation " << skip;
        EXPECT_EQ(LiveAllocations(), before) << "allocation " << skip;
        EXPECT_EQ(OpenDescriptors(), descriptorsBefore) << "allocation " << skip;
    }
}
