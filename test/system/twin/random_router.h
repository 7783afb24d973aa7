// SPDX-License-Identifier: MIT
// Random routers: what the walk configures, and the packets it sends to them.
#ifndef PMTUD_TWIN_RANDOM_ROUTER_H
#define PMTUD_TWIN_RANDOM_ROUTER_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "forge.h"
#include "twins.h"

namespace twin {

/// The same seed yields the same routers and packets.
class RandomRouter {
 public:
    explicit RandomRouter(uint64_t seed);

    const Mtus& mtus() const { return m_mtus; }

    /// What was chosen, a line each.
    const std::vector<std::string>& choices() const { return m_choices; }

    /// Whether its rules may drop answers.
    bool mayDropAnswers() const { return m_mayDropAnswers; }

    void configure(Twins& twins);
    void fill(Twins& twins, size_t packets);

 private:
    size_t below(size_t bound) { return static_cast<size_t>(m_random() % bound); }
    bool oneIn(size_t number) { return below(number) == 0; }
    template <typename Values>
    auto oneOf(const Values& values) {
        return values[below(values.size())];
    }

    void sysctl(Twins& twins, const std::string& name, const std::string& value);
    void rules(Twins& twins, const std::string& text);
    void command(Twins& twins, const std::string& line);

    void configureRouting(Twins& twins);
    void configureFirewall(Twins& twins);
    void configureTranslation(Twins& twins);

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
    std::vector<std::string> m_choices;
};

}  // namespace twin

#endif
