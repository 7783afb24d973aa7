// SPDX-License-Identifier: MIT
// The twin tests' program: takes the daemon to test as `--daemon PATH`.
#include <gtest/gtest.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "twin_fixture.h"

namespace twin {

void expectAlike(Twins& twins, size_t told) {
    for (const bool isMute : {false, true}) {
        SCOPED_TRACE(isMute ? "with mute hardware" : "with hardware that tells senders");
        const Comparison result = twins.compare(isMute);
        EXPECT_EQ(result.told, told) << "by the router without the daemon";
        EXPECT_EQ(result.withdrawn, result.answers) << "answers of the daemon left";
        expectNoDifference(result);
    }
}

void expectNoDifference(const Comparison& result) {
    std::string lines;
    for (const std::string& line : result.differences) lines += '\n' + line;
    EXPECT_TRUE(lines.empty()) << lines;
}

Comparison expectTold(const std::string& lines, size_t told) {
    Twins twins;
    play(twins, lines);
    Comparison result = twins.compare(false);
    EXPECT_EQ(result.told, told);
    expectNoDifference(result);
    return result;
}

std::vector<Case> expanded(const std::vector<Case>& cases) {
    std::vector<Case> all;
    for (const Case& one : cases) {
        if (one.variants.empty()) all.push_back(one);
        for (const Variant& variant : one.variants) {
            Case each{one.name + "_" + variant.name, variant.told, one.lines};
            for (size_t i = 0; i < variant.words.size(); ++i) {
                const std::string mark = "$" + std::to_string(i + 1);
                for (size_t at = 0; (at = each.lines.find(mark)) != std::string::npos;)
                    each.lines.replace(at, mark.size(), variant.words[i]);
            }
            all.push_back(each);
        }
    }
    return all;
}

TEST_P(Alike, Case) {
    Twins twins;
    play(twins, GetParam().lines);
    expectAlike(twins, GetParam().told);
}

}  // namespace twin

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc != 3 || std::string(argv[1]) != "--daemon") {
        std::cerr << "usage: twin_test --daemon PATH [GoogleTest's options]\n";
        return 2;
    }
    try {
        twin::prepareRun(argv[2]);
        return RUN_ALL_TESTS();
    } catch (const std::exception& error) {
        std::cerr << "twin_test: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
