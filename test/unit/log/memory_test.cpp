// SPDX-License-Identifier: MIT
// How much memory a thread keeps of its last line.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "QVLog.h"

namespace {

// Bytes taken with operator new and not yet given back, and how often it was called.
std::size_t alive = 0;
int taken = 0;

}  // namespace

void* operator new(std::size_t size) {
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    alive += malloc_usable_size(block);
    ++taken;
    return block;
}

void operator delete(void* block) noexcept {
    if (block == nullptr) return;
    alive -= malloc_usable_size(block);
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept { operator delete(block); }

namespace {

// The text is written without another copy of it.
constexpr int kLongest = 200000;
char text[kLongest + 1];

void writeLine(int length) {
    qv::QVDevLog logger;
    logger.get("file", 1, "int f()", qv::ERROR).write(text, length);
}

class KeptMemory : public testing::Test {
 protected:
    void SetUp() override {
        for (int i = 0; i < kLongest; ++i) text[i] = 'x';
        m_stream = qv::stream();
        qv::stream() = fopen("/dev/null", "w");
        writeLine(0);
        m_before = alive;
    }
    void TearDown() override {
        fclose(qv::stream());
        qv::stream() = m_stream;
    }
    // Beyond what a short line keeps.
    long kept() const { return static_cast<long>(alive) - static_cast<long>(m_before); }

 private:
    FILE* m_stream = nullptr;
    std::size_t m_before = 0;
};

TEST_F(KeptMemory, OfALineOfUpTo4096BytesServesTheNext) {
    writeLine(4000);
    EXPECT_GE(kept(), 2000);
    // With the zero at its end, and what the allocator rounds up to.
    EXPECT_LE(kept(), 4096 + 64);
    const int before = taken;
    writeLine(3900);
    EXPECT_EQ(taken - before, 0);
}

TEST_F(KeptMemory, OfALongerLineIsGivenBack) {
    for (const int length : {4100, 8000, 20000, kLongest}) {
        writeLine(length);
        EXPECT_LE(kept(), 0) << length;
    }
}

}  // namespace
