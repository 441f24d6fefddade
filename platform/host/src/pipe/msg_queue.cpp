// The message service: a message is a pipe buffer; sending moves it whole
// into the destination's queue, or across the bound socket as a one-piece
// frame, and the receiver owns what it takes out.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "../host_internal.h"
#include "pipe_internal.h"

namespace krm::host::pipe {

namespace {

struct Msg {
    void *buf;
    std::uint32_t cls;
    std::uint32_t type;
};

struct MsgQueue {
    std::mutex mu;
    std::condition_variable arrived;
    bool open = false;
    std::deque<Msg> queue;
    std::shared_ptr<Link> link;
};

MsgQueue g_queues[KRM_HOST_PIPE_MAX];

MsgQueue *QueueAt(std::uint32_t id) {
    return id < KRM_HOST_PIPE_MAX ? &g_queues[id] : nullptr;
}

void ReleaseMsg(void *msg) {
    (void)FreeBuffer(msg, BufKind::kDbuf);
}

// The caller holds q->mu; the link goes back to be stopped with no lock held.
std::shared_ptr<Link> CloseQueue(MsgQueue *q) {
    for (const Msg &m : q->queue) {
        ReleaseMsg(m.buf);
    }
    q->queue.clear();
    q->open = false;
    return std::move(q->link);
}

void DeliverMsg(std::uint32_t id, const FrameHeader &head, Package *pkg) {
    MsgQueue *q = QueueAt(id);
    void *buf = pkg->packets.front().front();
    std::unique_lock<std::mutex> lock(q->mu);
    if (!q->open) {
        lock.unlock();
        ReleaseMsg(buf);
        return;
    }
    q->queue.push_back(Msg{buf, head.arg1, head.arg2});
    q->arrived.notify_all();
}

void NoCount(std::uint32_t) {}

std::uint32_t Bind(std::uint32_t id, const char *path, bool listen) {
    MsgQueue *q = QueueAt(id);
    if (q == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    std::unique_lock<std::mutex> lock(q->mu);
    if (!q->open) {
        return KRM_HOST_PIPE_ERR_NOT_OPENED;
    }
    if (q->link != nullptr) {
        return KRM_HOST_PIPE_ERR_BUSY;
    }
    lock.unlock();
    const LinkPlan plan{id, FrameType::kMessage, "message queue", DeliverMsg, NoCount};
    std::shared_ptr<Link> link = listen ? LinkListen(plan, path) : LinkConnect(plan, path);
    if (link == nullptr) {
        return KRM_HOST_PIPE_ERR_SOCKET;
    }
    lock.lock();
    if (!q->open || q->link != nullptr) {
        lock.unlock();
        return KRM_HOST_PIPE_ERR_BUSY;
    }
    q->link = std::move(link);
    return 0;
}

std::uint32_t SendRemote(std::uint32_t id, Link *link, std::uint32_t cls, std::uint32_t type,
                         void *msg, std::uint32_t size, std::uint32_t bufSize) {
    SrcPackage src;
    src.pieceCounts.push_back(1);
    src.pieces.push_back(SrcPiece{msg, size, bufSize, 0, 0, 0, true});
    const FrameHeader head{
        kFrameMagic, static_cast<std::uint32_t>(FrameType::kMessage), 0, id, 0, 0, cls, type};
    return LinkSend(link, EncodeFrame(head, src)) ? 0 : KRM_HOST_PIPE_ERR_SOCKET;
}

// Where a message went: into the local queue (which now owns it), or not.
// A message not queued is the caller's to release: a sent one has its copy
// at the peer, a refused one is dropped.
struct Routed {
    std::uint32_t rc;
    bool queued;
};

Routed Route(std::uint32_t id, std::uint32_t cls, std::uint32_t type, void *msg, std::uint32_t size,
             std::uint32_t bufSize) {
    MsgQueue *q = QueueAt(id);
    if (q == nullptr) {
        return {KRM_HOST_PIPE_ERR_RANGE, false};
    }
    if (size > bufSize) {
        return {KRM_HOST_PIPE_ERR_ARGUMENT, false};
    }
    std::unique_lock<std::mutex> lock(q->mu);
    if (!q->open) {
        return {KRM_HOST_PIPE_ERR_NOT_OPENED, false};
    }
    if (q->link == nullptr) {
        q->queue.push_back(Msg{msg, cls, type});
        q->arrived.notify_all();
        return {0, true};
    }
    const std::shared_ptr<Link> link = q->link;
    lock.unlock();
    return {SendRemote(id, link.get(), cls, type, msg, size, bufSize), false};
}

}  // namespace

void ResetMessages() {
    for (MsgQueue &q : g_queues) {
        std::shared_ptr<Link> link;
        const std::lock_guard<std::mutex> lock(q.mu);
        link = CloseQueue(&q);
    }
}

}  // namespace krm::host::pipe

namespace hp = krm::host::pipe;

extern "C" {

void *KRM_MsgAlloc_F(uint32_t ulModuleId, uint32_t ulSize, const char *pcFileName,
                     uint32_t ulLine) {
    MBUF_IOVEC_S stPiece{nullptr, ulSize, 0};
    return KRM_DbufIovecAlloc_F(ulModuleId, 1, &stPiece, pcFileName, ulLine) == 0 ? stPiece.pBuf
                                                                                  : nullptr;
}

uint32_t KRM_SEND_MSG(uint32_t ulDest, uint32_t ulClass, uint32_t ulType, void *pMsg,
                      uint32_t ulSize) {
    KRM_HOST_BUF_INFO_S info;
    if (!krm::host::LookupLive(pMsg, &info) || info.ulKind != KRM_HOST_BUF_DBUF) {
        return KRM_HOST_PIPE_ERR_ARGUMENT;
    }
    hp::Routed routed{KRM_HOST_PIPE_ERR_NO_MEMORY, false};
    try {
        routed = hp::Route(ulDest, ulClass, ulType, pMsg, ulSize, info.ulLen);
    } catch (...) {
        routed = hp::Routed{KRM_HOST_PIPE_ERR_NO_MEMORY, false};
    }
    if (!routed.queued) {
        hp::ReleaseMsg(pMsg);
    }
    return routed.rc;
}

uint32_t TQM_MsgFree(uint32_t, void *pMsg) {
    MBUF_IOVEC_S stPiece{pMsg, 0, 0};
    return KRM_DbufIovecFree_F(1, &stPiece, "TQM_MsgFree", 0);
}

uint32_t TQM_MsgLenGet(const void *pMsg) {
    return KRM_DbufLengthGET(pMsg);
}

// The host has no interfaces; a message is addressed by its queue alone.
uint32_t TQM_KRM_MSG_GET_INTF(const void *) {
    return 0;
}
uint32_t TQM_KRM_MSG_GET_SUB_INTF(const void *) {
    return 0;
}

uint32_t KRM_HOST_MsgOpen(uint32_t ulDest) {
    hp::MsgQueue *q = hp::QueueAt(ulDest);
    if (q == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    const std::lock_guard<std::mutex> lock(q->mu);
    if (q->open) {
        return KRM_HOST_PIPE_ERR_BUSY;
    }
    q->open = true;
    return 0;
}

uint32_t KRM_HOST_MsgClose(uint32_t ulDest) {
    hp::MsgQueue *q = hp::QueueAt(ulDest);
    if (q == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    std::shared_ptr<hp::Link> link;
    const std::lock_guard<std::mutex> lock(q->mu);
    if (!q->open) {
        return KRM_HOST_PIPE_ERR_NOT_OPENED;
    }
    link = hp::CloseQueue(q);
    return 0;
}

void *KRM_HOST_MsgReceive(uint32_t ulDest, uint32_t ulTimeoutMs, uint32_t *pulClass,
                          uint32_t *pulType) {
    hp::MsgQueue *q = hp::QueueAt(ulDest);
    if (q == nullptr) {
        return nullptr;
    }
    std::unique_lock<std::mutex> lock(q->mu);
    (void)q->arrived.wait_for(lock, std::chrono::milliseconds(ulTimeoutMs),
                              [q] { return !q->open || !q->queue.empty(); });
    if (!q->open || q->queue.empty()) {
        return nullptr;
    }
    const hp::Msg m = q->queue.front();
    q->queue.pop_front();
    if (pulClass != nullptr) {
        *pulClass = m.cls;
    }
    if (pulType != nullptr) {
        *pulType = m.type;
    }
    return m.buf;
}

uint32_t KRM_HOST_MsgListen(uint32_t ulDest, const char *pcPath) {
    return hp::Bind(ulDest, pcPath, true);
}

uint32_t KRM_HOST_MsgConnect(uint32_t ulDest, const char *pcPath) {
    return hp::Bind(ulDest, pcPath, false);
}

uint32_t KRM_HOST_MsgWaitPeer(uint32_t ulDest, uint32_t ulTimeoutMs) {
    hp::MsgQueue *q = hp::QueueAt(ulDest);
    if (q == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    std::shared_ptr<hp::Link> link;
    {
        const std::lock_guard<std::mutex> lock(q->mu);
        if (!q->open) {
            return KRM_HOST_PIPE_ERR_NOT_OPENED;
        }
        link = q->link;
    }
    return hp::LinkWaitPeer(link.get(), ulTimeoutMs) ? 0 : KRM_HOST_PIPE_ERR_SOCKET;
}

}  // extern "C"
