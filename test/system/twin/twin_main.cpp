// SPDX-License-Identifier: MIT
// The twin tests' program: takes the daemon to test as `--daemon PATH`.
#include <gtest/gtest.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "twin_fixture.h"

twin::Run twin::TwinTest::run;

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc != 3 || std::string(argv[1]) != "--daemon") {
        std::cerr << "usage: twin_test --daemon PATH [GoogleTest's options]\n";
        return 2;
    }
    try {
        twin::TwinTest::run = twin::prepareRun(argv[2]);
        return RUN_ALL_TESTS();
    } catch (const std::exception& error) {
        std::cerr << "twin_test: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
