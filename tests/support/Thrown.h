#pragma once

#include <Kel/Core/Exception.h>

#include <string>

/// Returns the type code and the message of the exception that `operation` throws, empty when it throws none.
template <typename Operation>
std::string Thrown(Operation&& operation) {
    try {
        operation();
    } catch (const Kel::Exception& exception) {
        return std::to_string(exception.GetTypeCode()) + " " + exception.GetMessage();
    }
    return "";
}
