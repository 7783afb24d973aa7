// SPDX-License-Identifier: MIT
// Random routers: what the walk configures, and the packets it sends to them.
#ifndef PMTUD_TWIN_RANDOM_ROUTER_H
#define PMTUD_TWIN_RANDOM_ROUTER_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>

#include "forge.h"
#include "twins.h"

namespace twin {

/// The same seed yields the same routers and packets.
class RandomRouter {
 public:
    explicit RandomRouter(uint64_t seed);

    /// What play() prepares it by.
    const std::string& lines() const { return m_lines; }
    const Mtus& mtus() const { return m_mtus; }

    /// Whether its rules may drop answers.
    bool mayDropAnswers() const { return m_mayDropAnswers; }

    void fill(Twins& twins, size_t packets);

 private:
    size_t below(size_t bound) { return static_cast<size_t>(m_random() % bound); }
    bool oneIn(size_t number) { return below(number) == 0; }
    template <typename Value>
    Value oneOf(std::initializer_list<Value> values) {
        return *(values.begin() + below(values.size()));
    }
    /// Adds the line to one router in `number`.
    void maybe(size_t number, const std::string& line);

    void configure();
    void configureFirewall();
    void addForged(Twins& twins);
    void addPlain(Twins& twins);
    void addFragments(Twins& twins);
    void addMerged(Twins& twins);

    std::mt19937_64 m_random;
    Mtus m_mtus;
    soak::Forge m_forge;
    bool m_mayDropAnswers = false;
    bool m_isStrict = false;  // the rules drop all of the daemon's answers
    uint32_t m_serial = 40000;
    std::string m_lines;
};

}  // namespace twin

#endif
