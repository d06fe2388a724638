#include "support/FailureSweep.h"
#include "support/Test.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>

namespace {

using Lines = std::vector<std::string>;

using FailureSweepTest = FactoryTest;

void AppendLines(Lines& lines, FailureSweep::Of of, const char* what) {
    FailureSweep sweep(of);
    for (const Scenario& scenario : Scenarios()) {
        sweep.Run(scenario);
    }
    std::cout << sweep.GetFailures() << what << " failed in turn\n";
    lines.insert(lines.end(), sweep.GetLines().begin(), sweep.GetLines().end());
}

Lines Without(const Lines& lines, const Lines& others) {
    Lines left;
    std::set_difference(lines.begin(), lines.end(), others.begin(), others.end(), std::back_inserter(left));
    return left;
}

// What came of each failure, as it is meant to be, is in failures.txt beside the program. Where the environment names a
// file as KEL_TESTS_WRITE_FAILURES, that is written instead.
TEST_F(FailureSweepTest, EachFailureComesToWhatItShould) {
    Lines actual;
    AppendLines(actual, FailureSweep::Of::Calls, " calls");
    AppendLines(actual, FailureSweep::Of::Allocations, " allocations");
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment meanwhile.
    if (const char* const target = std::getenv("KEL_TESTS_WRITE_FAILURES"); target != nullptr) {
        std::ofstream file(target);
        for (const std::string& line : actual) {
            file << line << "\n";
        }
        return;
    }
    const BasicString program = ProcessServiceBase::GetCurrentName();
    std::ifstream file(program.substr(0, program.rfind('/') + 1) + "failures.txt");
    Lines wanted;
    for (std::string line; std::getline(file, line);) {
        wanted.push_back(line);
    }
    std::sort(actual.begin(), actual.end());
    std::sort(wanted.begin(), wanted.end());
    EXPECT_EQ(Without(wanted, actual), Lines()) << "missing";
    EXPECT_EQ(Without(actual, wanted), Lines()) << "not known";
}

}  // namespace
