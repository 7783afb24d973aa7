// SPDX-License-Identifier: MIT
// The chains, maps and counters of the rules, as the commands for nftables change them.
#ifndef PMTUD_TEST_FUZZ_RULES_MODEL_H
#define PMTUD_TEST_FUZZ_RULES_MODEL_H

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "input.h"

namespace fuzz {

/// Fails where nftables would refuse a command: on what is not there, or there already, or used.
class RulesModel {
 public:
    void run(const std::string& commands) {
        std::istringstream lines(commands);
        for (std::string line; std::getline(lines, line);) runLine(line);
        for (const auto& [element, chain] : m_elements)
            require(chain.empty() || m_chains.contains(chain), "an element leads to a chain");
    }

    bool operator==(const RulesModel&) const = default;

 private:
    void runLine(std::string_view line) {
        require(line.find_first_not_of(allowed) == line.npos, "characters of a command");
        if (const auto chain = behind(line, "add chain inet pmtud ")) {
            require(m_chains.emplace(*chain, Rules()).second, "a chain is added once");
        } else if (const auto flushed = behind(line, "flush chain inet pmtud ")) {
            chainNamed(*flushed).clear();
        } else if (const auto deleted = behind(line, "delete chain inet pmtud ")) {
            for (const auto& [element, target] : m_elements)
                require(target != *deleted, "a chain that is deleted is not in use");
            require(m_chains.erase(*deleted) == 1, "a chain that is deleted is there");
        } else if (const auto rule = behind(line, "add rule inet pmtud ")) {
            const std::size_t blank = rule->find(' ');
            require(blank != rule->npos, "a rule has a chain");
            requireCounterOf(*rule);
            chainNamed(rule->substr(0, blank)).push_back(rule->substr(blank + 1));
        } else if (const auto counter = behind(line, "add counter inet pmtud ")) {
            require(m_counters.insert(*counter).second, "a counter is added once");
        } else if (const auto dropped = behind(line, "delete counter inet pmtud ")) {
            require(!isCounted(*dropped), "a counter that is deleted is not in use");
            require(m_counters.erase(*dropped) == 1, "a counter that is deleted is there");
        } else if (const auto added = behind(line, "add element inet pmtud ")) {
            require(m_elements.emplace(keyOf(*added), targetOf(*added)).second,
                    "an element is added once");
        } else if (const auto removed = behind(line, "delete element inet pmtud ")) {
            require(m_elements.erase(keyOf(*removed)) == 1, "an element that is deleted is there");
        } else {
            require(false, "every command is known");
        }
    }

    using Rules = std::vector<std::string>;

    static constexpr std::string_view counterName = "counter name \"";
    static constexpr std::string_view allowed = "abcdefghijklmnopqrstuvwxyz0123456789 \".-<>={}:";

    static std::optional<std::string> behind(std::string_view line, std::string_view begin) {
        if (!line.starts_with(begin)) return std::nullopt;
        return std::string(line.substr(begin.size()));
    }

    Rules& chainNamed(const std::string& name) {
        const auto found = m_chains.find(name);
        require(found != m_chains.end(), "a chain that is changed is there");
        return found->second;
    }

    void requireCounterOf(const std::string& rule) const {
        const std::size_t begin = rule.find(counterName);
        if (begin == rule.npos) return;
        const std::string named = rule.substr(begin + counterName.size());
        require(m_counters.contains(named.substr(0, named.find('"'))), "a rule's counter is there");
    }

    bool isCounted(const std::string& counter) const {
        const std::string wanted = std::string(counterName) + counter + "\"";
        for (const auto& [chain, rules] : m_chains)
            for (const std::string& rule : rules)
                if (rule.find(wanted) != rule.npos) return true;
        return false;
    }

    // Of `map { "key" : jump chain }`: map and key.
    static std::string keyOf(const std::string& element) {
        const std::size_t end = element.find('"', element.find('"') + 1);
        require(end != element.npos, "an element has a key");
        return element.substr(0, end + 1);
    }

    // Of the same: the chain; nothing for an element of a set.
    static std::string targetOf(const std::string& element) {
        const std::size_t colon = element.find(" : ");
        if (colon == element.npos) return {};
        const std::size_t begin = element.find(' ', colon + 3) + 1;
        return element.substr(begin, element.find(' ', begin) - begin);
    }

    std::map<std::string, Rules> m_chains;
    std::set<std::string> m_counters;
    std::map<std::string, std::string> m_elements;
};

}  // namespace fuzz

#endif
