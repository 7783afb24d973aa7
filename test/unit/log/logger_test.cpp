// SPDX-License-Identifier: MIT
// The logger classes: what they derive from and how they are used.
#include <gtest/gtest.h>

#include <memory>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "QVLog.h"
#include "fake_platform.h"

namespace {

using FileLog = qv::Log<qv::Output2FilePolicy>;
using DebugProcessLog = qv::Log<qv::Output2DebugProcessPolicy>;

TEST(Loggers, DevLogDerivesPubliclyFromTheFileChannels) {
    EXPECT_TRUE((std::is_convertible_v<qv::QVDevLog*, FileLog*>));
}

TEST(Loggers, DebugProcLogDerivesPubliclyFromTheDebugProcessChannels) {
    EXPECT_TRUE((std::is_convertible_v<qv::QVDebugProcLog*, DebugProcessLog*>));
}

template <typename T>
class EveryLogger : public testing::Test {};
using LoggerTypes = testing::Types<FileLog, DebugProcessLog, qv::QVDevLog, qv::QVDebugProcLog>;
TYPED_TEST_SUITE(EveryLogger, LoggerTypes);

TYPED_TEST(EveryLogger, HasAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor_v<TypeParam>);
}

TYPED_TEST(EveryLogger, IsNotCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<TypeParam>);
    EXPECT_FALSE(std::is_copy_assignable_v<TypeParam>);
}

TEST(Loggers, AddNoFieldsToTheirBases) {
    EXPECT_EQ(sizeof(qv::QVDevLog), sizeof(FileLog));
    EXPECT_EQ(sizeof(qv::QVDebugProcLog), sizeof(DebugProcessLog));
}

TEST(Loggers, HaveTypeInformationOfTheirOwn) {
    EXPECT_NE(typeid(qv::QVDevLog), typeid(FileLog));
    EXPECT_NE(typeid(qv::QVDebugProcLog), typeid(DebugProcessLog));
}

TEST(Loggers, EmitTheirLineOnceThroughAPointerToTheirBase) {
    fake::resetPlatform();
    std::unique_ptr<DebugProcessLog> logger = std::make_unique<qv::QVDebugProcLog>();
    const DebugProcessLog& base = *logger;
    EXPECT_EQ(typeid(base), typeid(qv::QVDebugProcLog));
    logger->get(89, "n") << "text";
    logger.reset();
    EXPECT_EQ(fake::platform().debugLines, std::vector<fake::DebugLine>({{89, "%s", " n: text"}}));
}

TEST(Loggers, HavePoliciesWithoutData) {
    EXPECT_TRUE(std::is_empty_v<qv::Output2FilePolicy>);
    EXPECT_TRUE(std::is_empty_v<qv::Output2DebugProcessPolicy>);
}

}  // namespace
