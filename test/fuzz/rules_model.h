// SPDX-License-Identifier: MIT
// A model of the table that commands for nftables change: its objects, rules and elements, and what
// they refer to.
#ifndef PMTUD_TEST_FUZZ_RULES_MODEL_H
#define PMTUD_TEST_FUZZ_RULES_MODEL_H

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "input.h"
#include "ruleset.h"

namespace fuzz {

/// Fails if nftables would refuse a command, because an object is missing, exists or is in use.
class RulesModel {
 public:
    /// One transaction, after the text of the whole table if there is none so far.
    void run(const std::string& commands) {
        std::istringstream lines(commands);
        if (m_objects.empty()) install(lines);
        for (std::string line; std::getline(lines, line);) runLine(line);
        for (const auto& [object, uses] : m_uses)
            require(uses == 0 || m_objects.contains(object), "what is referred to is there");
    }

    /// Requires that no object that both have was deleted and added again.
    void requireKept(const RulesModel& before) const {
        for (const auto& [object, birth] : m_objects) {
            const auto known = before.m_objects.find(object);
            require(known == before.m_objects.end() || known->second == birth,
                    "what is still needed stays, with what it has counted and remembered");
        }
    }

    /// Ignores the objects' ages.
    bool operator==(const RulesModel& other) const {
        const auto haveOneName = [](const auto& one, const auto& two) {
            return one.first == two.first;
        };
        return m_rules == other.m_rules && m_elements == other.m_elements &&
               std::ranges::equal(m_objects, other.m_objects, haveOneName);
    }

 private:
    void install(std::istringstream& lines) {
        std::string line;
        std::string chain;
        bool isOwned = false;
        std::getline(lines, line);
        require(line == "table inet pmtud {", "the table comes first");
        while (std::getline(lines, line) && line != "}") {
            line.erase(0, line.find_first_not_of(' '));
            if (line == "flags owner") isOwned = true;
            if (line.ends_with(" {")) {
                const std::string object = line.substr(0, line.size() - 2);
                require(m_objects.emplace(object, 0).second, "an object is defined once");
                chain = object.starts_with("chain ") ? object.substr(6) : "";
                if (!chain.empty()) m_rules[chain];
            } else if (!chain.empty() && line != "}" && !line.empty()) {
                addRule(chain, line);
            }
        }
        require(isOwned && line == "}", "the table belongs to the process");
    }

    void runLine(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        std::string kind;
        std::string family;
        std::string table;
        std::string name;
        std::string rest;
        words >> verb >> kind >> family >> table >> name;
        std::getline(words >> std::ws, rest);
        require(family == "inet" && table == "pmtud", "a command about this table");
        require(kind == "chain" || kind == "map" || kind == "counter" || kind == "rule" ||
                    kind == "element",
                "kind of an object");
        if (kind == "element") return changeElement(verb, name, rest);
        if (kind == "rule") {
            require(verb == "add" && !rest.empty(), "rules are added");
            return addRule(name, rest);
        }
        const std::string object = kind + " " + name;
        if (kind == "chain" && verb != "add") flush(name);
        if (verb == "add") {
            require(m_objects.emplace(object, ++m_births).second, "an object is added once");
            if (kind == "chain") m_rules[name];
        } else if (verb != "flush" || kind != "chain") {
            require(verb == "delete", "every command is known");
            require(m_objects.erase(object) == 1, "an object that is deleted is there");
            require(m_uses[object] == 0, "an object that is deleted is not in use");
            m_rules.erase(kind == "chain" ? name : "");
            for (const auto& [key, target] : m_elements)
                require(kind != "map" || !key.starts_with(name + " "), "a deleted map is empty");
        }
    }

    // Of `map { key : target }`, or `set { key }`.
    void changeElement(const std::string& verb, const std::string& set, const std::string& text) {
        require(m_objects.contains("set " + set) || m_objects.contains("map " + set),
                "an element's set is there");
        require(text.starts_with("{ ") && text.ends_with(" }"), "an element is in braces");
        const std::string inside = text.substr(2, text.size() - 4);
        const size_t colon = inside.find(" : ");
        const std::string key = set + " " + inside.substr(0, colon);
        const auto known = m_elements.find(key);
        require((known == m_elements.end()) == (verb == "add"),
                "an element is added once, and one that is deleted is there");
        if (verb == "add") {
            const std::string target = colon == inside.npos ? "" : inside.substr(colon + 3);
            m_elements[key] = target;
            use(target, 1);
        } else {
            use(known->second, -1);
            m_elements.erase(known);
        }
    }

    void addRule(const std::string& chain, const std::string& rule) {
        require(m_rules.contains(chain), "a chain that is added to is there");
        m_rules[chain].push_back(rule);
        use(rule, 1);
    }

    void flush(const std::string& chain) {
        require(m_rules.contains(chain), "a chain that is emptied is there");
        for (const std::string& rule : m_rules[chain]) use(rule, -1);
        m_rules[chain].clear();
    }

    // Counts the uses of what a rule or the target of an element refers to.
    void use(const std::string& text, int uses) {
        static const std::map<std::string, std::string> kinds = {{"goto ", "chain "},
                                                                 {"jump ", "chain "},
                                                                 {"limit name ", "limit "},
                                                                 {"counter name ", "counter "},
                                                                 {"@copied", "map copied"}};
        for (const auto& [before, kind] : kinds)
            for (size_t at = 0; (at = text.find(before, at)) != text.npos;) {
                at += before.size();
                const std::string name = text.substr(at, text.find_first_of(" \n", at) - at);
                // "meta": a map selects the counter.
                if (name != "meta") m_uses[kind + name] += uses;
            }
        if (text.starts_with('"')) m_uses["counter " + text.substr(1, text.size() - 2)] += uses;
    }

    std::map<std::string, int> m_objects;  // kind and name; when it was added, 0: with the table
    std::map<std::string, std::vector<std::string>> m_rules;  // by chain
    std::map<std::string, std::string> m_elements;
    std::map<std::string, int> m_uses;  // of objects, by rules and elements
    int m_births = 0;
};

/// A table without VLANs, as the platform installs it.
inline const RulesModel& emptyTable() {
    static const RulesModel table = [] {
        RulesModel rules;
        rules.run(pmtud_linux::tableText());
        return rules;
    }();
    return table;
}

/// A new table for these VLANs.
inline RulesModel newTable(const pmtud_linux::Vlans& vlans) {
    RulesModel rules = emptyTable();
    rules.run(pmtud_linux::changeText({}, vlans));
    return rules;
}

}  // namespace fuzz

#endif
