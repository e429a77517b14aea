// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"

#include <VornProxyDependentContainer.h>

#include <map>

/** A proxy found by its address and handle, among 10 to 100,000. */
namespace Bench {

namespace {

constexpr int cLookUps = 1000;

std::string addressOf(int place) {
    return "socket:10.0." + std::to_string(place / 250) + "." + std::to_string(place % 250) + ":5023";
}

/** What is looked up. */
class Queries {
public:
    explicit Queries(int entries) {
        for (int i = 0; i < cLookUps; ++i)
            m_queries.emplace_back(addressOf(placeOf(i, entries)), placeOf(i, entries));
    }

    auto begin() const { return m_queries.begin(); }

    auto end() const { return m_queries.end(); }

private:
    std::vector<std::pair<std::string, long>> m_queries;
};

/**
 * The map alone. As with the registry, the key is made of address and handle for each look-up, and what is
 * found is a proxy, which lies in memory beside its entry.
 */
class MapLookUp : public Contender {
public:
    explicit MapLookUp(int entries) : m_queries(entries) {
        for (int i = 0; i < entries; ++i) {
            m_proxies.emplace_back(new VornNet::VornProxyDependent(addressOf(i), i));
            m_map.emplace(std::make_pair(addressOf(i), i), m_proxies.back());
        }
    }

    Clock::time_point operate() override {
        for (const auto& [address, handle] : m_queries)
            benchmark::DoNotOptimize(m_map.find(std::make_pair(address, handle))->second);
        return Clock::now();
    }

private:
    std::vector<VornNet::VornSmartPointer<VornNet::VornProxyDependent>> m_proxies;
    std::map<std::pair<std::string, long>, VornNet::VornProxyDependent*> m_map;
    const Queries m_queries;
};

class RegistryLookUp : public Contender {
public:
    explicit RegistryLookUp(int entries) : m_queries(entries) {
        for (int i = 0; i < entries; ++i)
            registry().add(new VornNet::VornProxyDependent(addressOf(i), i));
    }

    ~RegistryLookUp() override { VornNet::VornProxyDependentContainer::deleteInstance(); }

    Clock::time_point operate() override {
        for (const auto& [address, handle] : m_queries)
            benchmark::DoNotOptimize(registry().lookup(address, handle));
        return Clock::now();
    }

private:
    static VornNet::VornProxyDependentContainer& registry() {
        return VornNet::VornProxyDependentContainer::getInstance();
    }

    const Queries m_queries;
};

} // namespace

void addRegistry() {
    for (const int entries : {10, 1'000, 100'000}) {
        const std::string workload = "registry-" + std::to_string(entries);
        addContender<MapLookUp>(workload, "limit", cLookUps, entries);
        addContender<RegistryLookUp>(workload, "vornnet", cLookUps, entries);
    }
}

} // namespace Bench
