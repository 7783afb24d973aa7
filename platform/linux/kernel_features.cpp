// SPDX-License-Identifier: MIT
// Finds which feature the running kernel lacks, and names it for the operator.
#include "kernel_features.h"

#include "nft_connection.h"

namespace pmtud_linux {

namespace {

struct Feature {
    const char* name;
    const char* use;  // body of a table that uses it
};

// No entry uses a feature that is listed after it.
constexpr Feature kFeatures[] = {
    {"nftables (nf_tables)", ""},
    {"tables that a process owns (Linux 5.12)", "flags owner;"},
    {"sets (nf_tables)", "set s { type mark; }; chain c { meta mark @s; }"},
    {"dynamic sets (nf_tables)",
     "set s { typeof iif; size 1; flags dynamic,timeout; timeout 1s; }; chain c { update @s { iif "
     "}; }"},
    {"matching a packet's user (nf_tables)", "chain c { meta skuid 0; }"},
    {"route lookups (nft_fib_inet)", "chain c { fib daddr . mark oif 1; }"},
    {"limits (nft_limit)", "chain c { limit rate 1/second; }"},
    {"logging (nft_log)", "chain c { log group 1; }"},
    {"named counters and limits (nft_objref)", "counter n { }; chain c { counter name n; }"},
};

}  // namespace

std::string missingFeature() {
    for (const Feature& feature : kFeatures) {
        // A connection assumes that everything it has checked now exists, so each check needs a new
        // one.
        NftConnection connection;
        if (connection.open() != 0) return {};
        const std::string use = feature.use;
        if (connection.check("table inet pmtud-check {\n" + use + "\n}\n") != 0)
            return feature.name;
    }
    return {};
}

}  // namespace pmtud_linux
