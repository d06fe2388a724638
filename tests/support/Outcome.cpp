#include "Outcome.h"

#include "Test.h"

#include <set>

namespace {

// Returns the function that the stack trace names first of the library's, if that is not the operation that the message
// names, which has failed. Without optimisation, helpers of the operation's come first.
std::string Misnamed([[maybe_unused]] const Exception& exception) {
#ifdef NDEBUG
    const auto* const failure = dynamic_cast<const VeException*>(&exception);
    const BasicString& message = exception.GetMessage();
    const std::string operation = message.substr(0, message.find(": "));
    // These are named by what they are made of.
    const std::set<std::string> otherwise{"WaitInfinite", "ChangeName", "ChangeCpuAffinity"};
    if (failure == nullptr || operation.find_first_of(" '") != std::string::npos || otherwise.count(operation) != 0) {
        return "";
    }
    const std::string ours = "   at: Kel::System::Ve::Internal::";
    const BasicString& trace = failure->GetStackTrace();
    const std::string line = trace.substr(std::min(trace.size(), trace.find(ours) + ours.size()));
    const std::string function = line.substr(0, line.find('('));
    if (function.substr(function.rfind(':') + 1) != operation) {
        return " thrown in '" + function + "'";
    }
#endif
    return "";
}

}  // namespace

std::string Operation::Outcome() const {
    try {
        return outcome();
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
    const std::string end = "ends the process: ";
    for (const Failure& failure : failures) {
        SCOPED_TRACE(failure.call);
        const std::string before = Belongings();
        if (failure.outcome.find(end) == 0) {
            // As terminate writes type and text. Brackets have another meaning in an expression.
            const auto colon = failure.outcome.find(": ", end.size());
            std::string text = failure.outcome.substr(colon + 2);
            std::replace_if(
                text.begin(), text.end(), [](char c) { return c == '(' || c == ')'; }, '.');
            EXPECT_EXIT(OutcomeOf(failure), testing::KilledBySignal(SIGABRT),
                        failure.outcome.substr(end.size(), colon - end.size()) + "'\n.*: +" + text);
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
