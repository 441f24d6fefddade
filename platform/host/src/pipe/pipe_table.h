// The pipes of this process: a fixed table of slots, each a bounded queue of
// packages with its credits, counters, tap and optional socket link.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "pipe_internal.h"

#pragma GCC visibility push(hidden)

namespace krm::host::pipe {

inline constexpr std::uint32_t kDefaultMaxPackages = 1024;

struct Pipe {
    std::mutex mu;
    std::condition_variable arrived;
    bool open = false;
    std::uint32_t maxPackages = 0;
    std::uint32_t tokens = 0;
    std::uint32_t tokenCeiling = 0;
    std::deque<Package> queue;
    // The address arrays of the last package each thread read: its
    // descriptors point into them until that thread's next read of this
    // pipe, so readers on several threads never pull each other's arrays
    // away. The buffers are the reader's.
    std::unordered_map<std::thread::id, std::vector<std::vector<void *>>> lastRead;
    KRM_HOST_PIPE_TAP_PF tap = nullptr;
    void *tapArg = nullptr;
    KRM_HOST_PIPE_STATS_S stats{};
    std::shared_ptr<Link> link;
};

// The slot of a pipe identifier, or nullptr when it is out of range.
Pipe *PipeAt(std::uint32_t id);

// 0 when the identifier is in range and the pipe open (the caller holds
// p->mu), else the service's code.
std::uint32_t OpenCheck(std::uint32_t id, const Pipe *p);

// Puts a package in its place: urgent ones at the head (the newest first),
// normal ones at the tail, priority ones behind every package of the same or
// a higher priority but never in front of an urgent one.
void Enqueue(std::deque<Package> *queue, Package pkg, WriteKind kind);

}  // namespace krm::host::pipe

#pragma GCC visibility pop
