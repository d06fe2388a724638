#pragma once

#include <Kel/System/Ve/Adapters/Runtime.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

using Kel::System::Ve::Adapters::Runtime;
using Kel::System::Ve::Internal::ServiceFactory;

inline ServiceFactory& Factory() { return *ServiceFactory::GetInstance(); }
