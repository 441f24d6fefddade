// The pipe table and its control API: opening and closing pipes, credits,
// depth, waiting, the tap, the counters, and binding a pipe to a socket.
#include <chrono>

#include "../host_internal.h"
#include "pipe_table.h"

namespace krm::host::pipe {

namespace {

Pipe g_pipes[KRM_HOST_PIPE_MAX];

// Releases what a pipe holds; the caller holds p->mu. The link is handed
// back so that it is stopped with no lock held: its thread may be waiting
// for this very lock to deliver a package.
std::shared_ptr<Link> ClosePipe(Pipe *p) {
    for (Package &pkg : p->queue) {
        ReleasePackage(&pkg);
    }
    p->queue.clear();
    p->lastRead.clear();
    p->open = false;
    p->tap = nullptr;
    p->tapArg = nullptr;
    return std::move(p->link);
}

// A frame the link accepted: the package joins the queue as the remote
// writer asked, unless the pipe can no longer take it.
void DeliverPackage(std::uint32_t id, const FrameHeader &head, Package *pkg) {
    Pipe *p = PipeAt(id);
    std::unique_lock<std::mutex> lock(p->mu);
    if (!p->open || p->queue.size() >= p->maxPackages) {
        ++p->stats.ulRefused;
        lock.unlock();
        ReleasePackage(pkg);
        PlatformReport(kReportFile, 501, "pipe %u: package from the peer dropped: queue full",
                       static_cast<unsigned>(id));
        return;
    }
    Enqueue(&p->queue, std::move(*pkg), static_cast<WriteKind>(head.arg1));
    p->arrived.notify_all();
}

void CountRefused(std::uint32_t id) {
    Pipe *p = PipeAt(id);
    const std::lock_guard<std::mutex> lock(p->mu);
    ++p->stats.ulRefused;
}

uint32_t Bind(std::uint32_t id, const char *path, bool listen) {
    Pipe *p = PipeAt(id);
    if (p == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    std::unique_lock<std::mutex> lock(p->mu);
    if (!p->open) {
        return KRM_HOST_PIPE_ERR_NOT_OPENED;
    }
    if (p->link != nullptr) {
        return KRM_HOST_PIPE_ERR_BUSY;
    }
    const LinkPlan plan{id, FrameType::kPackage, "pipe", DeliverPackage, CountRefused};
    lock.unlock();
    std::shared_ptr<Link> link = listen ? LinkListen(plan, path) : LinkConnect(plan, path);
    if (link == nullptr) {
        return KRM_HOST_PIPE_ERR_SOCKET;
    }
    lock.lock();
    if (!p->open || p->link != nullptr) {
        lock.unlock();
        return KRM_HOST_PIPE_ERR_BUSY;  // closed or bound meanwhile; link released here
    }
    p->link = std::move(link);
    return 0;
}

}  // namespace

Pipe *PipeAt(std::uint32_t id) {
    return id < KRM_HOST_PIPE_MAX ? &g_pipes[id] : nullptr;
}

std::uint32_t OpenCheck(std::uint32_t id, const Pipe *p) {
    if (id >= KRM_HOST_PIPE_MAX || p == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    return p->open ? 0 : KRM_HOST_PIPE_ERR_NOT_OPENED;
}

void Enqueue(std::deque<Package> *queue, Package pkg, WriteKind kind) {
    if (kind == WriteKind::kUrgent) {
        pkg.urgent = true;
        queue->push_front(std::move(pkg));
        return;
    }
    pkg.urgent = false;
    auto pos = queue->end();
    if (kind == WriteKind::kPrio) {
        for (auto it = queue->begin(); it != queue->end(); ++it) {
            if (!it->urgent && it->prio < pkg.prio) {
                pos = it;
                break;
            }
        }
    }
    queue->insert(pos, std::move(pkg));
}

void ResetPipes() {
    for (std::uint32_t id = 0; id < KRM_HOST_PIPE_MAX; ++id) {
        std::shared_ptr<Link> link;
        {
            const std::lock_guard<std::mutex> lock(g_pipes[id].mu);
            link = ClosePipe(&g_pipes[id]);
        }
    }
}

}  // namespace krm::host::pipe

using krm::host::pipe::Pipe;
using krm::host::pipe::PipeAt;

extern "C" {

uint32_t KRM_HOST_PipeOpen(uint32_t ulPipeId, uint32_t ulMaxPackages) {
    Pipe *p = PipeAt(ulPipeId);
    if (p == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    const std::lock_guard<std::mutex> lock(p->mu);
    if (p->open) {
        return KRM_HOST_PIPE_ERR_BUSY;
    }
    p->open = true;
    p->maxPackages = ulMaxPackages != 0 ? ulMaxPackages : krm::host::pipe::kDefaultMaxPackages;
    p->tokens = KRM_HOST_PIPE_DEFAULT_TOKENS;
    p->tokenCeiling = KRM_HOST_PIPE_DEFAULT_TOKENS;
    p->stats = KRM_HOST_PIPE_STATS_S{};
    return 0;
}

uint32_t KRM_HOST_PipeClose(uint32_t ulPipeId) {
    Pipe *p = PipeAt(ulPipeId);
    if (p == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    std::shared_ptr<krm::host::pipe::Link> link;
    {
        const std::lock_guard<std::mutex> lock(p->mu);
        if (!p->open) {
            return KRM_HOST_PIPE_ERR_NOT_OPENED;
        }
        link = krm::host::pipe::ClosePipe(p);
    }
    return 0;
}

uint32_t KRM_HOST_PipeSetTokens(uint32_t ulPipeId, uint32_t ulTokens) {
    Pipe *p = PipeAt(ulPipeId);
    if (p == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    const std::lock_guard<std::mutex> lock(p->mu);
    if (!p->open) {
        return KRM_HOST_PIPE_ERR_NOT_OPENED;
    }
    p->tokens = ulTokens;
    p->tokenCeiling = ulTokens;
    return 0;
}

uint32_t KRM_HOST_PipeTokens(uint32_t ulPipeId) {
    Pipe *p = PipeAt(ulPipeId);
    if (p == nullptr) {
        return 0;
    }
    const std::lock_guard<std::mutex> lock(p->mu);
    return p->open ? p->tokens : 0;
}

uint32_t KRM_HOST_PipeDepth(uint32_t ulPipeId) {
    Pipe *p = PipeAt(ulPipeId);
    if (p == nullptr) {
        return 0;
    }
    const std::lock_guard<std::mutex> lock(p->mu);
    return p->open ? static_cast<uint32_t>(p->queue.size()) : 0;
}

uint32_t KRM_HOST_PipeListen(uint32_t ulPipeId, const char *pcPath) {
    return krm::host::pipe::Bind(ulPipeId, pcPath, true);
}

uint32_t KRM_HOST_PipeConnect(uint32_t ulPipeId, const char *pcPath) {
    return krm::host::pipe::Bind(ulPipeId, pcPath, false);
}

uint32_t KRM_HOST_PipeWaitPeer(uint32_t ulPipeId, uint32_t ulTimeoutMs) {
    Pipe *p = PipeAt(ulPipeId);
    if (p == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    std::shared_ptr<krm::host::pipe::Link> link;
    {
        const std::lock_guard<std::mutex> lock(p->mu);
        if (!p->open) {
            return KRM_HOST_PIPE_ERR_NOT_OPENED;
        }
        link = p->link;
    }
    return krm::host::pipe::LinkWaitPeer(link.get(), ulTimeoutMs) ? 0 : KRM_HOST_PIPE_ERR_SOCKET;
}

uint32_t KRM_HOST_PipeWait(uint32_t ulPipeId, uint32_t ulTimeoutMs) {
    Pipe *p = PipeAt(ulPipeId);
    if (p == nullptr) {
        return 0;
    }
    std::unique_lock<std::mutex> lock(p->mu);
    (void)p->arrived.wait_for(lock, std::chrono::milliseconds(ulTimeoutMs),
                              [p] { return !p->open || !p->queue.empty(); });
    return p->open ? static_cast<uint32_t>(p->queue.size()) : 0;
}

void KRM_HOST_PipeSetTap(uint32_t ulPipeId, KRM_HOST_PIPE_TAP_PF pfTap, void *pArg) {
    Pipe *p = PipeAt(ulPipeId);
    if (p == nullptr) {
        return;
    }
    const std::lock_guard<std::mutex> lock(p->mu);
    p->tap = pfTap;
    p->tapArg = pArg;
}

uint32_t KRM_HOST_PipeStats(uint32_t ulPipeId, KRM_HOST_PIPE_STATS_S *pstStats) {
    Pipe *p = PipeAt(ulPipeId);
    if (p == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    const std::lock_guard<std::mutex> lock(p->mu);
    if (!p->open) {
        return KRM_HOST_PIPE_ERR_NOT_OPENED;
    }
    if (pstStats == nullptr) {
        return KRM_HOST_PIPE_ERR_ARGUMENT;
    }
    *pstStats = p->stats;
    return 0;
}

}  // extern "C"
