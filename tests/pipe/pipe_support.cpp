#include "pipe_support.h"

#include <algorithm>
#include <cstring>

#include "krm_host/host.h"
#include "krm_mbuf/platform.h"
#include "mbuf_check.h"

namespace krm::test {

void PrintTo(const Piece &piece, std::ostream *os) {
    *os << "{" << piece.pBuf << ", " << piece.ulLen << "}";
}

std::vector<Piece> Pieces(const MBUF_IOVEC_S *pstIovec, std::uint32_t ulCount) {
    std::vector<Piece> out(ulCount);
    std::transform(pstIovec, pstIovec + ulCount, out.begin(), [](const MBUF_IOVEC_S &v) {
        return Piece{v.pBuf, v.ulLen};
    });
    return out;
}

void Decorate(MBUF_S *pstMbuf, const std::vector<RecordRow> &records, std::uint32_t seed) {
    (void)MBUF_SetPathId(pstMbuf, 0x11000000u + seed);
    (void)MBUF_SetSockId(pstMbuf, 0x22000000u + seed);
    (void)MBUF_SetReceiveIfIndex(pstMbuf, 0x33000000u + seed);
    (void)MBUF_SetSendIfIndex(pstMbuf, 0x44000000u + seed);
    MBUF_SetPktPriority(pstMbuf, seed % 8);
    (void)MBUF_SetFlag(pstMbuf, 0x5A000000u ^ seed);
    (void)MBUF_SetFlag2(pstMbuf, 0x00F0F000u | (seed & 0xF));
    (void)MBUF_SetFlag3(pstMbuf, seed % 32);
    for (const RecordRow &row : records) {
        void *pRec =
            MBUF_CreatePktTag(pstMbuf, row.type, row.len, 0, kTestModule, "pipe_support", __LINE__);
        ASSERT_NE(pRec, nullptr) << "record " << row.type;
        const Bytes pattern = Pattern(row.len, seed * 31 + row.type);
        std::memcpy(pRec, pattern.data(), pattern.size());
    }
}

void PrintTo(const Snapshot &snap, std::ostream *os) {
    *os << snap.data.size() << " bytes in " << snap.nodeLens.size() << " nodes, "
        << snap.records.size() << " records";
}

Snapshot Snap(MBUF_S *pstMbuf) {
    Snapshot snap;
    snap.data = Flatten(pstMbuf);
    snap.nodeLens = NodeLengths(pstMbuf);
    snap.words = {pstMbuf->ulTotalDataLen, pstMbuf->ulFlag2, pstMbuf->ulFlag3,
                  pstMbuf->ulPktTagInfo, pstMbuf->ulFlag & ~MBUF_FLAG_CTLINFO_SENT};
    if (pstMbuf->pstCtlInfo == nullptr) {
        return snap;
    }
    const auto *pucComm = reinterpret_cast<const std::uint8_t *>(&pstMbuf->pstCtlInfo->stComm);
    snap.comm.assign(pucComm, pucComm + sizeof(MBUF_CTL_COMM_S));
    for (std::uint32_t type = 1; type < MBUF_CTL_TYPE_NUM; ++type) {
        const std::uint32_t len = MBUF_GetControlLen(pstMbuf, type);
        if (len != 0) {
            const auto *p = static_cast<const std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, type));
            snap.records.emplace_back(type, Bytes(p, p + len));
        }
    }
    return snap;
}

std::vector<void *> Carry(const MBUF_IOVEC_S *pstIovec, std::uint32_t ulCount, bool bRelease) {
    std::vector<void *> out;
    for (std::uint32_t i = 0; i < ulCount; ++i) {
        const std::uint32_t ulBufLen = KRM_DbufLengthGET(pstIovec[i].pBuf);
        const std::uint32_t ulSize = ulBufLen != 0 ? ulBufLen : pstIovec[i].ulLen;
        const MBUF_FILE_LINE_S fl{"pipe_carry", 1};
        void *pNew = MBUF_MemAlloc_fl(ulSize, kTestModule, &fl);
        EXPECT_NE(pNew, nullptr);
        std::memset(pNew, 0, ulSize);
        std::memcpy(pNew, pstIovec[i].pBuf, std::min(pstIovec[i].ulLen, ulSize));
        out.push_back(pNew);
    }
    for (std::uint32_t i = 0; bRelease && i < ulCount; ++i) {
        if (KRM_DbufLengthGET(pstIovec[i].pBuf) != 0) {
            const MBUF_FILE_LINE_S fl{"pipe_carry", 2};
            EXPECT_EQ(MBUF_MemFree_fl(pstIovec[i].pBuf, &fl), 0u);
        }
    }
    return out;
}

void ReleaseAllLive() {
    std::vector<std::pair<void *, std::uint32_t>> live;
    KRM_HOST_VisitLiveBuffers(
        [](const KRM_HOST_BUF_INFO_S *pstInfo, void *pArg) {
            static_cast<std::vector<std::pair<void *, std::uint32_t>> *>(pArg)->emplace_back(
                const_cast<void *>(pstInfo->pBuf), pstInfo->ulKind);
        },
        &live);
    for (const auto &[pBuf, kind] : live) {
        if (kind == KRM_HOST_BUF_DBUF) {
            const MBUF_FILE_LINE_S fl{"pipe_release", 1};
            (void)MBUF_MemFree_fl(pBuf, &fl);
        } else {
            (void)KRM_Free_F(pBuf, "pipe_release", 2);
        }
    }
}

std::vector<NodeRow> ManyNodes(std::uint32_t ulInline, std::uint32_t ulExt) {
    std::vector<NodeRow> rows;
    for (std::uint32_t i = 0; i < ulInline; ++i) {
        rows.push_back(InlineNode(1 + i % 7, i % 3));
    }
    for (std::uint32_t i = 0; i < ulExt; ++i) {
        rows.push_back(ClusterNode(10 + i, i % 5));
    }
    return rows;
}

}  // namespace krm::test
