// Taking a writer's pieces over: checking what the writer describes against
// the buffers the platform knows, making the reader's fresh copies, and
// releasing the writer's buffers once the package is on its way.
#include <cinttypes>
#include <cstring>

#include "../host_internal.h"
#include "pipe_internal.h"

namespace krm::host::pipe {

namespace {

// The piece as the platform sees it. A piece longer than the buffer it
// starts would make the copy read memory the writer does not own.
bool ReadPiece(const MBUF_IOVEC_S &iov, SrcPiece *out) {
    KRM_HOST_BUF_INFO_S info;
    const bool live = LookupLive(iov.pBuf, &info) && info.ulKind == KRM_HOST_BUF_DBUF;
    *out = SrcPiece{iov.pBuf, iov.ulLen, iov.ulLen, 0, 0, 0, live};
    if (!live) {
        return true;
    }
    if (iov.ulLen > info.ulLen) {
        PlatformReport(kReportFile, 101,
                       "pipe write: piece %p claims %" PRIu32 " bytes of a %" PRIu32 "-byte buffer",
                       iov.pBuf, iov.ulLen, info.ulLen);
        return false;
    }
    out->bufSize = info.ulLen;
    out->ctrlFlag = info.ulCtrlFlag;
    out->traceId = info.ulTraceId;
    out->owner = info.ulOwner;
    return true;
}

}  // namespace

std::uint32_t ReadWriter(std::uint32_t pktCount, const MBUF_TRANS_DESC_S *pkts, SrcPackage *out) {
    if (pkts == nullptr || pktCount == 0 || pktCount > kMaxPackets) {
        return KRM_HOST_PIPE_ERR_ARGUMENT;
    }
    out->pieceCounts.clear();
    out->pieces.clear();
    for (std::uint32_t p = 0; p < pktCount; ++p) {
        const MBUF_TRANS_DESC_S &desc = pkts[p];
        if (desc.pstIovec == nullptr || desc.ulNum == 0 || desc.ulNum > KRM_HOST_PIPE_MAX_PIECES) {
            return KRM_HOST_PIPE_ERR_ARGUMENT;
        }
        out->pieceCounts.push_back(desc.ulNum);
        for (std::uint32_t i = 0; i < desc.ulNum; ++i) {
            SrcPiece piece;
            if (desc.pstIovec[i].pBuf == nullptr || !ReadPiece(desc.pstIovec[i], &piece)) {
                return KRM_HOST_PIPE_ERR_ARGUMENT;
            }
            out->pieces.push_back(piece);
        }
    }
    return 0;
}

void *FreshCopy(const SrcPiece &piece) {
    void *p = AllocBuffer(BufKind::kDbuf, piece.bufSize, piece.owner, kReportFile, 201);
    if (p == nullptr) {
        return nullptr;
    }
    std::memset(p, 0, piece.bufSize);
    if (piece.len != 0) {
        std::memcpy(p, piece.src, piece.len);
    }
    (void)SetCtrlFlag(p, BufKind::kDbuf, piece.ctrlFlag);
    (void)SetTraceId(p, BufKind::kDbuf, piece.traceId);
    return p;
}

bool CopyPackage(const SrcPackage &src, Package *out) {
    out->packets.assign(src.pieceCounts.size(), {});
    std::size_t next = 0;
    for (std::size_t p = 0; p < src.pieceCounts.size(); ++p) {
        for (std::uint32_t i = 0; i < src.pieceCounts[p]; ++i, ++next) {
            const SrcPiece &piece = src.pieces[next];
            void *copy = FreshCopy(piece);
            if (copy == nullptr) {
                ReleasePackage(out);
                return false;
            }
            out->packets[p].push_back(copy);
        }
    }
    return true;
}

void ReleasePackage(Package *pkg) {
    for (auto &packet : pkg->packets) {
        for (void *p : packet) {
            (void)FreeBuffer(p, BufKind::kDbuf);
        }
    }
    pkg->packets.clear();
}

// A buffer named by two pieces is released once; a piece that starts no
// buffer was never the platform's to release.
void ReleaseWriter(const SrcPackage &src) {
    for (const SrcPiece &piece : src.pieces) {
        KRM_HOST_BUF_INFO_S info;
        if (piece.live && LookupLive(piece.src, &info)) {
            MBUF_IOVEC_S iov{const_cast<void *>(piece.src), 0, 0};
            (void)KRM_DbufIovecFree_F(1, &iov, kReportFile, 301);
        }
    }
}

}  // namespace krm::host::pipe
