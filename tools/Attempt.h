#pragma once

#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <string>

/// Returns the message of what an attempt throws; empty when it succeeds.
template <class Attempt>
std::string FailureOf(Attempt attempt) {
    try {
        attempt();
        return "";
    } catch (const Kel::System::Ve::Exceptions::VeException& exception) {
        return exception.GetMessage();
    }
}

/// Starts a thread that ends at once, with this priority (0: normal scheduling) on these processors (0: all), and
/// returns in which words that failed.
std::string FailureOfThread(Kel::System::Ve::Internal::ServiceFactory& factory, unsigned int priority,
                            unsigned int processors);
