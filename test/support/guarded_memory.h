// SPDX-License-Identifier: MIT
// Memory whose end is guarded: the byte after it cannot be read.
#ifndef PMTUD_TEST_GUARDED_MEMORY_H
#define PMTUD_TEST_GUARDED_MEMORY_H

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <stdexcept>

namespace packets {

class GuardedMemory {
 public:
    /// For up to `capacity` bytes.
    explicit GuardedMemory(size_t capacity)
        : m_size((capacity + m_page - 1) / m_page * m_page),
          m_start(mmap(nullptr, m_size + m_page, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (m_start == MAP_FAILED) throw std::bad_alloc();
        if (mprotect(end(), m_page, PROT_NONE) != 0) throw std::bad_alloc();
    }
    GuardedMemory(const GuardedMemory&) = delete;
    GuardedMemory& operator=(const GuardedMemory&) = delete;
    ~GuardedMemory() { munmap(m_start, m_size + m_page); }

    /// `size` bytes that end at the guard: as many of `bytes` as fit, then `filler`.
    uint8_t* place(std::span<const uint8_t> bytes, size_t size, uint8_t filler = 0) {
        if (size > m_size) throw std::length_error("guarded memory is too small");
        uint8_t* const start = end() - size;
        const size_t known = std::min(size, bytes.size());
        if (known != 0) memcpy(start, bytes.data(), known);
        if (known != size) memset(start + known, filler, size - known);
        return start;
    }

 private:
    uint8_t* end() const { return static_cast<uint8_t*>(m_start) + m_size; }

    size_t m_page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t m_size;
    void* m_start;
};

}  // namespace packets

#endif
