// SPDX-License-Identifier: MIT
// The framework's error class: caught by its own name only.
#include "qv_exception.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <type_traits>

namespace {

std::string handlerOf(void (*thrower)()) {
    try {
        thrower();
    } catch (const std::exception&) {
        return "std::exception";
    } catch (qv::exception& e) {
        return std::string("qv::exception ") + e.what();
    } catch (...) {
        return "...";
    }
    return "none";
}

TEST(QvException, IsNotCaughtAsAStandardException) {
    EXPECT_EQ(handlerOf([] { throw qv::exception("text"); }), "qv::exception text");
}

TEST(QvException, IsNotCaughtAsARuntimeError) {
    try {
        throw qv::exception("text");
    } catch (const std::runtime_error&) {
        FAIL() << "caught as std::runtime_error";
    } catch (qv::exception&) {
    }
}

TEST(QvException, IsMadeOfAStringAsWell) {
    EXPECT_EQ(handlerOf([] { throw qv::exception(std::string("a text")); }),
              "qv::exception a text");
}

TEST(QvException, LeavesStandardExceptionsToTheirHandlers) {
    EXPECT_EQ(handlerOf([] { throw std::runtime_error("text"); }), "std::exception");
}

TEST(QvException, HasRuntimeErrorAsItsOneNonVirtualBaseAndNoFieldsOfItsOwn) {
    EXPECT_EQ(sizeof(qv::exception), sizeof(std::runtime_error));
}

TEST(QvException, DerivesFromRuntimeErrorButNotPublicly) {
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, qv::exception>));
    EXPECT_FALSE((std::is_convertible_v<qv::exception*, std::runtime_error*>));
}

}  // namespace
