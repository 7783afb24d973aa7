// SPDX-License-Identifier: MIT
// Runs the tests of the Linux platform on a real kernel, in namespaces of their own.
#include <gtest/gtest.h>

#include "world.h"

namespace {

// Not before the tests run: listing them needs no privilege.
class Isolation : public testing::Environment {
    void SetUp() override { isolate(); }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::AddGlobalTestEnvironment(new Isolation);
    return RUN_ALL_TESTS();
}
