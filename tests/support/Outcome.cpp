#include "Outcome.h"

#include "Test.h"

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
std::string Misnamed([[maybe_unused]] const VeException& exception) {
#ifdef NDEBUG
    const BasicString& message = exception.GetMessage();
    const std::string operation = message.substr(0, message.find(": "));
    if (operation.find_first_of(" '") != std::string::npos) {
        return "";
    }
    for (const char* const otherwise : {"WaitInfinite", "ChangeName", "ChangeCpuAffinity", "Close"}) {
        if (operation == otherwise) {
            return "";
        }
    }
    const std::string ours = "   at: Kel::System::Ve::Internal::";
    const BasicString& trace = exception.GetStackTrace();
    const auto line = trace.find(ours);
    const std::string function =
        line == std::string::npos ? "" : trace.substr(line + ours.size(), trace.find('(', line) - line - ours.size());
    return function.substr(function.rfind(':') + 1) == operation ? "" : " thrown in '" + function + "'";
#else
    return "";
#endif
}

}  // namespace

std::string Operation::CurrentException() {
    try {
        throw;
    } catch (const VeException& exception) {
        const BasicString type = RuntimeTypeInfo::GetTypeName(typeid(exception));
        return type.substr(type.rfind(':') + 1) + Misnamed(exception) + ": " + exception.GetMessage();
    } catch (const Exception& exception) {
        const BasicString type = RuntimeTypeInfo::GetTypeName(typeid(exception));
        return type.substr(type.rfind(':') + 1) + ": " + exception.GetMessage();
    } catch (const std::exception& exception) {
        return exception.what();
    }
}

namespace {

// What a child tells its parent before it ends.
struct LastWords {
    char text[500];
};

SharedObject<LastWords>* lastWords = nullptr;

[[noreturn]] void TellAndEnd() {
    if (std::current_exception() != nullptr) {
        Operation::CurrentException().copy((*lastWords)->text, sizeof LastWords::text - 1);
    }
    EndChild(EXIT_SUCCESS);
}

std::string OutcomeInChild(const Failure& failure) {
    SharedObject<LastWords> told;
    lastWords = &told;
    Child child([&] {
        std::set_terminate(&TellAndEnd);
        const FailingCall call(failure.call, failure.skip, failure.errorNumber);
        failure.operation.Outcome().copy(told->text, sizeof LastWords::text - 1);
        return EXIT_FAILURE;
    });
    const bool isEnded = child.Wait() == EXIT_SUCCESS;
    return (isEnded ? "ends the process: " : "does not end the process: ") + std::string(told->text);
}

std::string OutcomeOf(const Failure& failure) {
    if (failure.outcome.find("ends the process: ") == 0) {
        return OutcomeInChild(failure);
    }
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
        EXPECT_EQ(OutcomeOf(failure), failure.outcome);
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
