#pragma once

#include <Kel/Core/Exception.h>
#include <Kel/Core/RuntimeTypeInfo.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

/// Succeeds when `operation` throws an exception of exactly this type with exactly this message.
template <typename ExceptionType = Kel::System::Ve::Exceptions::VeException, typename Operation>
testing::AssertionResult Throws(Operation&& operation, const std::string& message) {
    try {
        operation();
    } catch (const Kel::Exception& exception) {
        if (typeid(exception) == typeid(ExceptionType) && exception.GetMessage() == message) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "threw " << Kel::RuntimeTypeInfo::GetTypeName(typeid(exception)) << " \""
                                           << exception.GetMessage() << "\" instead of \"" << message << "\"";
    }
    return testing::AssertionFailure() << "threw nothing instead of \"" << message << "\"";
}
