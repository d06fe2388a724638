#pragma once

#include "OwnCounts.h"

#include <Kel/Core/AppDomain.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

/// An AppDomain for the time of a test.
class AppDomainTest : public testing::Test {
protected:
    AppDomainTest() { Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain; }
    ~AppDomainTest() override { Kel::Singleton<Kel::AppDomain>::pInstance = nullptr; }

    Kel::AppDomain appDomain;
};

/// A factory for the time of a test, which must leave no service object and no file descriptor behind.
class FactoryTest : public AppDomainTest {
protected:
    using ServiceFactory = Kel::System::Ve::Internal::ServiceFactory;

    FactoryTest() {
        ServiceFactory::CreateServiceFactory();
        factory = ServiceFactory::GetInstance();
    }

    ~FactoryTest() override {
        EXPECT_EQ(LiveObjects(), 0U);
        EXPECT_TRUE(factory->GetRegisteredServiceObjects().empty());
        ServiceFactory::DisposeServiceFactory();
        EXPECT_EQ(OpenDescriptors(), descriptorsBefore);
    }

    std::uint32_t LiveObjects() const { return factory->GetStatistics().GetNumOfObjectsCreated(); }

    ServiceFactory* factory;

private:
    const std::ptrdiff_t descriptorsBefore = OpenDescriptors();
};
