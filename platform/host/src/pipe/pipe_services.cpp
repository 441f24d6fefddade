// The pipe services the library imports: the four single-packet writes, the
// package write, token credits and the package read.
//
// Every write takes the same road: check the pipe and the writer's pieces,
// then either send the package to the bound peer as a frame or copy it into
// fresh buffers on the local queue, show it to the tap, and only then release
// the writer's buffers. A write that fails has taken nothing over.
#include <new>

#include "../host_internal.h"
#include "pipe_table.h"

namespace krm::host::pipe {

namespace {

struct TapCall {
    KRM_HOST_PIPE_TAP_PF fn = nullptr;
    void *arg = nullptr;
};

// The package into the local queue; the caller holds no lock.
std::uint32_t QueueLocal(Pipe *p, const SrcPackage &src, WriteKind kind) {
    {
        const std::lock_guard<std::mutex> lock(p->mu);
        if (p->queue.size() >= p->maxPackages) {
            return KRM_HOST_PIPE_ERR_FULL;
        }
    }
    Package pkg;
    if (!CopyPackage(src, &pkg)) {
        return KRM_HOST_PIPE_ERR_NO_MEMORY;
    }
    pkg.prio = src.pieces.front().ctrlFlag;
    std::unique_lock<std::mutex> lock(p->mu);
    const std::uint32_t rc = !p->open                            ? KRM_HOST_PIPE_ERR_NOT_OPENED
                             : p->queue.size() >= p->maxPackages ? KRM_HOST_PIPE_ERR_FULL
                                                                 : 0;
    if (rc != 0) {
        lock.unlock();
        ReleasePackage(&pkg);
        return rc;
    }
    Enqueue(&p->queue, std::move(pkg), kind);
    p->arrived.notify_all();
    return 0;
}

std::uint32_t SendRemote(std::uint32_t id, Link *link, const SrcPackage &src, WriteKind kind) {
    const FrameHeader head{kFrameMagic,
                           static_cast<std::uint32_t>(FrameType::kPackage),
                           0,
                           id,
                           0,
                           0,
                           static_cast<std::uint32_t>(kind),
                           src.pieces.front().ctrlFlag};
    const std::vector<unsigned char> frame = EncodeFrame(head, src);
    if (frame.empty()) {
        return KRM_HOST_PIPE_ERR_ARGUMENT;  // more than one frame may carry
    }
    return LinkSend(link, frame) ? 0 : KRM_HOST_PIPE_ERR_SOCKET;
}

std::uint32_t WritePackage(std::uint32_t id, WriteKind kind, std::uint32_t pktCount,
                           const MBUF_TRANS_DESC_S *pkts, bool takeOver) {
    Pipe *p = PipeAt(id);
    std::shared_ptr<Link> link;
    {
        if (p == nullptr) {
            return KRM_HOST_PIPE_ERR_RANGE;
        }
        const std::lock_guard<std::mutex> lock(p->mu);
        if (!p->open) {
            return KRM_HOST_PIPE_ERR_NOT_OPENED;
        }
        link = p->link;
    }
    SrcPackage src;
    std::uint32_t rc = ReadWriter(pktCount, pkts, &src);
    if (rc == 0) {
        rc = link != nullptr ? SendRemote(id, link.get(), src, kind) : QueueLocal(p, src, kind);
    }
    if (rc != 0) {
        return rc;
    }
    TapCall tap;
    {
        const std::lock_guard<std::mutex> lock(p->mu);
        ++p->stats.ulWritten;
        p->stats.ulPktsWritten += pktCount;
        tap = TapCall{p->tap, p->tapArg};
    }
    if (tap.fn != nullptr) {
        tap.fn(id, pktCount, pkts, tap.arg);
    }
    if (takeOver) {
        ReleaseWriter(src);
    }
    return 0;
}

std::uint32_t WriteOne(std::uint32_t id, WriteKind kind, std::uint32_t count, MBUF_IOVEC_S *iov,
                       bool takeOver) {
    const MBUF_TRANS_DESC_S desc{count, iov};
    return WritePackage(id, kind, 1, &desc, takeOver);
}

// Hands the head package to the reader: one descriptor per packet pointing
// at the address array the pipe keeps until its next read.
std::uint32_t ReadPackage(Pipe *p, std::uint32_t *count, MBUF_TRANS_DESC_S *descs,
                          std::uint32_t *status, std::uint32_t *aux) {
    if (p->queue.empty()) {
        *count = 0;
        *status = 2;
        return 0;
    }
    Package &head = p->queue.front();
    if (head.packets.size() > *count) {
        return KRM_HOST_PIPE_ERR_CAPACITY;
    }
    std::vector<std::vector<void *>> &arrays = p->lastRead[std::this_thread::get_id()];
    arrays = std::move(head.packets);
    p->queue.pop_front();
    for (std::size_t i = 0; i < arrays.size(); ++i) {
        descs[i].ulNum = static_cast<std::uint32_t>(arrays[i].size());
        descs[i].pstIovec = reinterpret_cast<MBUF_IOVEC_S *>(arrays[i].data());
    }
    *count = static_cast<std::uint32_t>(arrays.size());
    *status = 0;
    if (aux != nullptr) {
        *aux = static_cast<std::uint32_t>(p->queue.size());
    }
    p->tokens += p->tokens < p->tokenCeiling ? 1 : 0;
    ++p->stats.ulRead;
    p->stats.ulPktsRead += *count;
    return 0;
}

template <typename Fn>
std::uint32_t Guarded(Fn fn) {
    try {
        return fn();
    } catch (const std::bad_alloc &) {
        return KRM_HOST_PIPE_ERR_NO_MEMORY;
    }
}

}  // namespace

}  // namespace krm::host::pipe

namespace hp = krm::host::pipe;
using hp::WriteKind;

extern "C" {

uint32_t KRM_PipeIovecWrite(uint32_t ulPipeId, uint32_t ulCount, MBUF_IOVEC_S *pstIovec) {
    return hp::Guarded(
        [&] { return hp::WriteOne(ulPipeId, WriteKind::kNormal, ulCount, pstIovec, true); });
}

uint32_t KRM_PipeIovecPrioWrite(uint32_t ulPipeId, uint32_t ulCount, MBUF_IOVEC_S *pstIovec) {
    return hp::Guarded(
        [&] { return hp::WriteOne(ulPipeId, WriteKind::kPrio, ulCount, pstIovec, true); });
}

uint32_t TQM_PipeUrgentIovecWrite(uint32_t ulPipeId, uint32_t ulCount, MBUF_IOVEC_S *pstIovec) {
    return hp::Guarded(
        [&] { return hp::WriteOne(ulPipeId, WriteKind::kUrgent, ulCount, pstIovec, true); });
}

uint32_t TQM_PipeIovecNoFreeWrite(uint32_t ulPipeId, uint32_t ulCount, MBUF_IOVEC_S *pstIovec) {
    return hp::Guarded(
        [&] { return hp::WriteOne(ulPipeId, WriteKind::kNormal, ulCount, pstIovec, false); });
}

uint32_t KRM_PipeWriteIovecIntra(uint32_t ulPipeId, uint32_t ulPktCount,
                                 MBUF_TRANS_DESC_S *pstDescArray) {
    return hp::Guarded([&] {
        return hp::WritePackage(ulPipeId, WriteKind::kNormal, ulPktCount, pstDescArray, true);
    });
}

uint32_t KRM_PipeTokenAlloc(uint32_t ulPipeId, uint32_t *pulCount) {
    hp::Pipe *p = hp::PipeAt(ulPipeId);
    if (p == nullptr) {
        return KRM_HOST_PIPE_ERR_RANGE;
    }
    const std::lock_guard<std::mutex> lock(p->mu);
    if (!p->open) {
        return KRM_HOST_PIPE_ERR_NOT_OPENED;
    }
    if (pulCount == nullptr) {
        return KRM_HOST_PIPE_ERR_ARGUMENT;
    }
    if (p->tokens < *pulCount) {
        return KRM_HOST_PIPE_ERR_NO_TOKEN;
    }
    p->tokens -= *pulCount;
    return 0;
}

uint32_t KRM_PipePackageRead(uint32_t ulPipeId, uint32_t *pulCount, MBUF_TRANS_DESC_S *pstDescArray,
                             uint32_t *pulStatus, uint32_t *pulAux) {
    return hp::Guarded([&]() -> uint32_t {
        hp::Pipe *p = hp::PipeAt(ulPipeId);
        if (p == nullptr) {
            return KRM_HOST_PIPE_ERR_RANGE;
        }
        const std::lock_guard<std::mutex> lock(p->mu);
        if (!p->open) {
            return KRM_HOST_PIPE_ERR_NOT_OPENED;
        }
        if (pulCount == nullptr || pulStatus == nullptr ||
            (pstDescArray == nullptr && *pulCount != 0)) {
            return KRM_HOST_PIPE_ERR_ARGUMENT;
        }
        if (pulAux != nullptr) {
            *pulAux = 0;
        }
        return hp::ReadPackage(p, pulCount, pstDescArray, pulStatus, pulAux);
    });
}

}  // extern "C"
