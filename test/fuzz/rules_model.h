// SPDX-License-Identifier: MIT
// The table of the rules, as commands for nftables change it: its sets, maps, chains, counters and
// elements, and what they refer to.
#ifndef PMTUD_TEST_FUZZ_RULES_MODEL_H
#define PMTUD_TEST_FUZZ_RULES_MODEL_H

#include <cctype>
#include <cstddef>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "input.h"
#include "vlan_table.h"

namespace fuzz {

/// Fails if nftables would refuse a command: on what is not there, or there already, or used.
class RulesModel {
 public:
    using Names = std::set<std::string>;

    /// The text of a whole table.
    void install(std::string_view text) {
        std::istringstream lines{std::string(text)};
        std::string line;
        std::string block;
        std::getline(lines, line);
        require(line == "table inet pmtud {", "the table comes first");
        while (std::getline(lines, line) && line != "}") {
            line.erase(0, line.find_first_not_of(' '));
            if (line == "}")
                block.clear();
            else if (!block.empty())
                addLine(block, line);
            else if (line == "flags owner")
                m_isOwned = true;
            else if (!line.empty())
                block = openBlock(line);
        }
        require(m_isOwned, "the table goes with the process");
        require(line == "}" && !std::getline(lines, line), "nothing follows the table");
        requireWhole();
    }

    /// One transaction.
    void run(std::string_view commands) {
        std::istringstream lines{std::string(commands)};
        for (std::string line; std::getline(lines, line);) runLine(line);
        requireWhole();
    }

    /// Holds if the table has these chains, maps, counters and elements for the VLANs, and none
    /// that another VLAN or MTU would need.
    void requireFitsTo(const pmtud_linux::Vlans& vlans) const {
        Names objects;
        Names elements;
        for (const auto& [number, vlan] : vlans) {
            const std::string digits = std::to_string(vlan.ifindex);
            const std::string key = '"' + std::string(16 - digits.size(), '0') + digits + '"';
            elements.insert("vlans { " + key + " }");
            if (vlan.inVrf) elements.insert("vrf-ports { " + key + " }");
            if (vlan.mtu < 576 || vlan.mtu > 16383) continue;
            const std::string vid = std::to_string(number);
            const std::string mtu = std::to_string(vlan.mtu);
            objects.merge(Names{"counter bcm0." + vid, "chain to-bcm0." + vid});
            elements.insert("egress { " + key + " : goto to-bcm0." + vid + " }");
            elements.insert("counters { " + vid + " : \"bcm0." + vid + "\" }");
            for (const std::string family : {"4", "4o", "6"}) {
                const std::string what = family + "-" + mtu;
                objects.merge(Names{"map copied" + what, "chain refused" + what});
                elements.insert("refused" + family + " { " + mtu + " : goto refused" + what + " }");
            }
            requireCopies(vid, mtu);
        }
        require(elements == elementTexts(), "the elements are those of the VLANs");
        for (const auto& [object, birth] : m_objects)
            require(birth == 0 || objects.erase(object) == 1, "the objects are those of the VLANs");
        require(objects.empty(), "every object of the VLANs is there");
    }

    /// What both have is as old here as there: nothing was deleted and made again.
    void requireKept(const RulesModel& before) const {
        for (const auto& [object, birth] : m_objects) {
            const auto known = before.m_objects.find(object);
            require(known == before.m_objects.end() || known->second == birth,
                    "what is still needed stays, with what it has counted and remembered");
        }
    }

    /// But for the objects' ages.
    bool operator==(const RulesModel& other) const {
        return names() == other.names() && m_rules == other.m_rules &&
               m_elements == other.m_elements;
    }

 private:
    using Rules = std::vector<std::string>;

    static constexpr std::string_view kAllowed =
        "abcdefghijklmnopqrstuvwxyz0123456789 \".,;@!-<>=_{}:/&";

    // A block's kind and name, of `kind name {`.
    std::string openBlock(const std::string& line) {
        const std::size_t end = line.find(" {");
        require(end != line.npos && line.size() == end + 2, "a block is opened");
        const std::string object = line.substr(0, end);
        require(m_objects.emplace(object, 0).second, "an object is defined once");
        if (object.starts_with("chain ")) m_rules[object.substr(6)];
        return object;
    }

    void addLine(const std::string& object, const std::string& line) {
        if (object.starts_with("chain ")) addRule(object.substr(6), line);
    }

    void runLine(const std::string& line) {
        require(line.find_first_not_of(kAllowed) == line.npos, "characters of a command");
        std::istringstream words(line);
        std::string verb;
        std::string kind;
        std::string family;
        std::string table;
        std::string name;
        words >> verb >> kind >> family >> table >> name;
        require(family == "inet" && table == "pmtud", "commands are about this table");
        std::string rest;
        std::getline(words >> std::ws, rest);
        if (kind == "element") return changeElement(verb, name, rest);
        if (kind == "rule") {
            require(verb == "add" && !rest.empty(), "rules are added");
            return addRule(name, rest);
        }
        if (verb == "flush") {
            require(kind == "chain", "chains are flushed");
            return flush(name);
        }
        const std::string object = kind + " " + name;
        if (verb == "add") {
            require(kind == "chain" || kind == "map" || kind == "counter", "kind of an object");
            require(m_objects.emplace(object, ++m_births).second, "an object is added once");
            if (kind == "chain") m_rules[name];
            return;
        }
        require(verb == "delete", "every command is known");
        require(m_objects.erase(object) == 1, "an object that is deleted is there");
        if (kind == "chain") {
            flush(name);
            m_rules.erase(name);
        }
        require(!m_uses.contains(object), "an object that is deleted is not in use");
        if (kind != "map") return;
        for (const auto& [key, target] : m_elements)
            require(!key.starts_with(name + " "), "a map that is deleted is empty");
    }

    // Of `map { key : target }`, or `set { key }`.
    void changeElement(const std::string& verb, const std::string& set, const std::string& text) {
        require(m_objects.contains("set " + set) || m_objects.contains("map " + set),
                "an element's set is there");
        require(text.starts_with("{ ") && text.ends_with(" }"), "an element is in braces");
        const std::string inside = text.substr(2, text.size() - 4);
        const std::size_t colon = inside.find(" : ");
        const std::string key = set + " " + inside.substr(0, colon);
        const auto known = m_elements.find(key);
        if (verb == "add") {
            const std::string target = colon == inside.npos ? "" : inside.substr(colon + 3);
            require(known == m_elements.end(), "an element is added once");
            m_elements[key] = target;
            use(target, 1);
        } else {
            require(verb == "delete" && known != m_elements.end(),
                    "an element that is deleted is there");
            use(known->second, -1);
            m_elements.erase(known);
        }
    }

    Rules& chainNamed(const std::string& name) {
        const auto found = m_rules.find(name);
        require(found != m_rules.end(), "a chain that is changed is there");
        return found->second;
    }

    void addRule(const std::string& chain, const std::string& rule) {
        chainNamed(chain).push_back(rule);
        use(rule, 1);
    }

    void flush(const std::string& chain) {
        for (const std::string& rule : chainNamed(chain)) use(rule, -1);
        chainNamed(chain).clear();
    }

    // The words that follow a word, as far as a name goes.
    static void addNames(const std::string& text, const std::string& before,
                         const std::string& kind, Names& names) {
        for (std::size_t at = text.find(before); at != text.npos; at = text.find(before, at + 1)) {
            const std::size_t begin = at + before.size();
            std::size_t end = begin;
            while (end < text.size() &&
                   (std::isalnum(text[end]) || text[end] == '-' || text[end] == '.'))
                ++end;
            names.insert(kind + text.substr(begin, end - begin));
        }
    }

    // What a rule or an element's target refers to is used once more, or less.
    void use(const std::string& text, int uses) {
        Names names;
        addNames(text, "goto ", "chain ", names);
        addNames(text, "jump ", "chain ", names);
        addNames(text, "limit name ", "limit ", names);
        addNames(text, "@copied", "map copied", names);
        if (text.find("counter name meta ") == text.npos)
            addNames(text, "counter name ", "counter ", names);
        if (text.starts_with("\"")) names.insert("counter " + text.substr(1, text.size() - 2));
        for (const std::string& name : names)
            if ((m_uses[name] += uses) == 0) m_uses.erase(name);
    }

    void requireWhole() const {
        for (const auto& [object, uses] : m_uses)
            require(m_objects.contains(object), "what rules and elements refer to is there");
    }

    // One rule lets through what fits, one what is no candidate, and three copy, to the maps of the
    // MTU.
    void requireCopies(const std::string& vid, const std::string& mtu) const {
        const auto found = m_rules.find("to-bcm0." + vid);
        require(found != m_rules.end() && found->second.size() == 5, "the rules of a VLAN");
        const Rules& rules = found->second;
        require(rules[0] == "meta length <= " + mtu + " accept", "what fits is let through");
        require(rules[1] == "jump candidate", "only what can be answered is copied");
        std::size_t i = 2;
        for (const std::string kind : {"4", "4o", "6"}) {
            const std::string map = "update @copied" + kind + "-" + mtu + " {";
            require(rules[i].find(map) != rules[i].npos, "headers are remembered by MTU");
            require(rules[i].find(" : " + vid + " } log prefix \"pmtud:" + vid + "\" ") !=
                        rules[i].npos,
                    "copies name the VLAN");
            ++i;
        }
    }

    Names names() const {
        Names all;
        for (const auto& [object, birth] : m_objects) all.insert(object);
        return all;
    }

    Names elementTexts() const {
        Names all;
        for (const auto& [key, target] : m_elements) {
            const std::size_t blank = key.find(' ');
            all.insert(key.substr(0, blank) + " { " + key.substr(blank + 1) +
                       (target.empty() ? "" : " : " + target) + " }");
        }
        return all;
    }

    std::map<std::string, int> m_objects;  // kind and name; when it was added, 0: with the table
    std::map<std::string, Rules> m_rules;  // by chain
    std::map<std::string, std::string> m_elements;
    std::map<std::string, int> m_uses;  // of objects, by rules and elements
    int m_births = 0;
    bool m_isOwned = false;
};

}  // namespace fuzz

#endif
