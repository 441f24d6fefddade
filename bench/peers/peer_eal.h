// What every peer benchmark file shares: DPDK's EAL started once, without
// huge pages or devices, on the first CPU this process may use, and the
// statistic that reports the fastest repetition (other work on the machine
// only ever adds time).
#pragma once

#include <rte_eal.h>
#include <sched.h>

#include <algorithm>
#include <string>
#include <vector>

namespace krm::bench {

inline bool StartPeerEal(const char *pcProg) {
    cpu_set_t set;
    CPU_ZERO(&set);
    int cpu = 0;
    if (sched_getaffinity(0, sizeof(set), &set) == 0) {
        while (cpu < CPU_SETSIZE && !CPU_ISSET(cpu, &set)) {
            ++cpu;
        }
    }
    std::string lcore = std::to_string(cpu);
    std::vector<std::string> args = {pcProg, "--no-huge", "--no-pci", "-m",
                                     "512",  "-l",        lcore,      "--log-level=1"};
    std::vector<char *> argv;
    for (std::string &a : args) {
        argv.push_back(a.data());
    }
    return rte_eal_init(static_cast<int>(argv.size()), argv.data()) >= 0;
}

inline double Fastest(const std::vector<double> &v) {
    return *std::min_element(v.begin(), v.end());
}

// Creates the pools of the packet-building run and registers its
// benchmarks; false when a pool could not be made.
bool RegisterBuildPeerBenchmarks();

}  // namespace krm::bench
