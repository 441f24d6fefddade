#include "fuzz_support.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/bytes.h"
#include "krm_host/host.h"
#include "krm_mbuf/mbuf_debug.h"
#include "krm_mbuf/platform.h"
#include "meta/ctlinfo_block.h"

namespace krm::fuzz {

namespace {

constexpr char kPackageMagic[8] = {'K', 'R', 'M', 'P', 'I', 'P', 'E', '1'};
constexpr std::uint32_t kMaxPackets = 64;
constexpr std::uint32_t kMaxPieces = 90;
constexpr std::uint32_t kNodeSize = sizeof(MBUF_S);
constexpr std::uint32_t kClusterSize = 1960;
constexpr std::uint32_t kModule = 0x00FF0000u;

std::uint32_t BufSizeFor(std::uint32_t ulWord, std::uint32_t ulLen) {
    if ((ulWord >> 24) != 0 || ulLen > kClusterSize) {
        return ulLen;
    }
    return ulLen <= kNodeSize ? kNodeSize : kClusterSize;
}

// A received node's data must lie in the buffer it arrived in (or the
// external buffer it was given), as the platform knows that buffer's size.
void ExpectDataInMemory(const MBUF_S *pstMbuf, const char *pcWhat) {
    std::uint32_t i = 0;
    for (const MBUF_S *p = pstMbuf; p != nullptr; p = p->pstNext, ++i) {
        const void *pBuf = (p->ulFlag & MBUF_EXT) != 0 ? static_cast<const void *>(p->pucExtBuf)
                                                       : static_cast<const void *>(p);
        const auto ullBuf = reinterpret_cast<std::uintptr_t>(pBuf);
        const auto ullData = reinterpret_cast<std::uintptr_t>(p->pucData);
        if (p->ulDataLen != 0 &&
            (ullData < ullBuf || ullData - ullBuf + p->ulDataLen > KRM_DbufLengthGET(pBuf))) {
            Fail("%s: node %u: %u data bytes outside its buffer", pcWhat, i, p->ulDataLen);
        }
    }
}

}  // namespace

void Fail(const char *pcFmt, ...) {
    std::va_list args;
    va_start(args, pcFmt);
    std::fputs("fuzz: ", stderr);
    std::vfprintf(stderr, pcFmt, args);
    std::fputc('\n', stderr);
    va_end(args);
    std::abort();
}

Session::Session(bool bReset) {
    if (bReset) {
        KRM_HOST_Reset();
    } else {
        KRM_HOST_ReportClear();
    }
    ulLive_ = KRM_HOST_LiveBufferCount();
}

Session::~Session() {
    const std::uint32_t ulNow = KRM_HOST_LiveBufferCount();
    if (ulNow != ulLive_) {
        (void)KRM_HOST_DumpLiveBuffers(stderr);
        Fail("%u buffers live after the input, %u before", ulNow, ulLive_);
    }
}

bool CheckPacket(const MBUF_S *pstMbuf, const char *pcWhat, bool bInPlace) {
    // A head whose control block was its only other piece comes back before
    // its data pointer is re-based, as the receive defines: nothing to check.
    if (bInPlace && pstMbuf->pucData == nullptr && pstMbuf->pstNext == nullptr) {
        return false;
    }
    char acWhy[128] = {};
    const std::uint32_t rc = MBUF_DBG_Check(pstMbuf, acWhy, sizeof(acWhy));
    // The control block is the sender's account, carried as it came: every
    // access of a record bounds itself by the block's memory. A receive
    // rebuilt in place trusts the sender's later nodes and total length too.
    // Where in its buffer a node's data lies, and how large an external
    // buffer the sender sent (even an empty one), is the sender's word too:
    // only a loop or a runaway chain is the reader's, and data outside the
    // buffer it arrived in (checked below).
    const bool bSenders = rc >= MBUF_DBG_ERR_CTL_HEAD || (bInPlace && rc >= MBUF_DBG_ERR_MAGIC);
    if (rc != MBUF_DBG_OK && !bSenders) {
        Fail("%s: packet check %u: %s", pcWhat, rc, acWhy);
    }
    if (bInPlace) {
        ExpectDataInMemory(pstMbuf, pcWhat);
    }
    return rc == MBUF_DBG_OK;
}

Bytes Data(const MBUF_S *pstMbuf) {
    Bytes v;
    for (const MBUF_S *p = pstMbuf; p != nullptr; p = p->pstNext) {
        v.insert(v.end(), p->pucData, p->pucData + p->ulDataLen);
    }
    return v;
}

Bytes Canon(MBUF_S *pstMbuf) {
    // A received packet may claim any total length: an image beyond a
    // megabyte is not worth the harness's memory.
    // A head returned before its data was re-based has no data to read.
    if (pstMbuf->pucData == nullptr && pstMbuf->ulDataLen != 0) {
        return {};
    }
    const std::uint32_t ulSize = MBUF_GetAllBlockSize(pstMbuf);
    if (ulSize == 0 || ulSize > (1u << 20)) {
        return Data(pstMbuf);
    }
    Bytes v(ulSize);
    if (MBUF_Serialize(pstMbuf, v.data()) != MBUF_OK) {
        Fail("a checked packet does not serialise");
    }
    return v;
}

Bytes Carried(MBUF_S *pstMbuf) {
    Bytes v = Data(pstMbuf);
    std::uint8_t auc[4];
    Store32(auc, pstMbuf->ulFlag2);
    v.insert(v.end(), auc, auc + 4);
    for (std::uint32_t ulType = 0; ulType < MBUF_CTL_TYPE_NUM; ++ulType) {
        const auto *pucRec =
            static_cast<const std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulType));
        // A record is read only inside the block's memory, as the library
        // reads it; what its length claims beyond is written as zeros.
        const std::uint32_t ulLen = pucRec != nullptr ? MBUF_GetCtlLen(pstMbuf, ulType) : 0;
        const std::uint32_t ulIn = pucRec != nullptr ? ctl::RoomFrom(pstMbuf, pucRec) : 0;
        Store32(auc, (ulType << 16) | ulLen);
        v.insert(v.end(), auc, auc + 4);
        v.insert(v.end(), pucRec, pucRec + std::min(ulLen, ulIn));
        v.resize(v.size() + (ulLen - std::min(ulLen, ulIn)), 0);
    }
    return v;
}

void ExpectSame(const Bytes &a, const Bytes &b, const char *pcWhat) {
    if (a == b) {
        return;
    }
    std::size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i]) {
        ++i;
    }
    Fail("%s: %zu and %zu bytes, first difference at %zu", pcWhat, a.size(), b.size(), i);
}

bool ParsePackage(const std::uint8_t *pucData, std::size_t ulSize,
                  std::vector<PiecePacket> *pvPackets) {
    std::size_t ulAt = sizeof(kPackageMagic);
    auto take32 = [&](std::uint32_t *pul) {
        if (ulAt + 4 > ulSize) {
            return false;
        }
        *pul = LoadBe32(pucData + ulAt);
        ulAt += 4;
        return true;
    };
    std::uint32_t ulPkts = 0;
    if (ulSize < sizeof(kPackageMagic) || std::memcmp(pucData, kPackageMagic, 8) != 0 ||
        !take32(&ulPkts)) {
        return false;
    }
    for (std::uint32_t i = 0; i < ulPkts && i < kMaxPackets; ++i) {
        std::uint32_t ulPieces = 0;
        if (!take32(&ulPieces) || ulPieces == 0 || ulPieces > kMaxPieces) {
            break;
        }
        PiecePacket vPkt;
        std::uint32_t ulWord = 0;
        while (vPkt.size() < ulPieces && take32(&ulWord)) {
            const std::uint32_t ulLen = ulWord & 0x00FFFFFFu;
            if (ulLen > ulSize - ulAt) {
                break;
            }
            vPkt.push_back(Piece{pucData + ulAt, ulLen, BufSizeFor(ulWord, ulLen)});
            ulAt += ulLen;
        }
        if (vPkt.size() != ulPieces) {
            break;
        }
        pvPackets->push_back(std::move(vPkt));
    }
    return !pvPackets->empty();
}

std::vector<void *> Land(const PiecePacket &vPieces) {
    std::vector<void *> vBufs;
    for (const Piece &piece : vPieces) {
        MBUF_IOVEC_S iov{nullptr, piece.ulBufSize, 0};
        if (KRM_DbufIovecAlloc_F(kModule, 1, &iov, "fuzz", 1) != 0 || iov.pBuf == nullptr) {
            FreeLive(vBufs);
            return {};
        }
        std::memset(iov.pBuf, 0, piece.ulBufSize);
        if (piece.ulLen != 0) {
            std::memcpy(iov.pBuf, piece.pucBytes, piece.ulLen);
        }
        vBufs.push_back(iov.pBuf);
    }
    return vBufs;
}

void FreeLive(const std::vector<void *> &vBufs) {
    for (void *p : vBufs) {
        KRM_HOST_BUF_INFO_S info;
        if (KRM_HOST_BufferInfo(p, &info) == 0) {
            MBUF_IOVEC_S iov{p, info.ulLen, 0};
            (void)KRM_DbufIovecFree_F(1, &iov, "fuzz", 2);
        }
    }
}

void Release(MBUF_S *pstMbuf) {
    std::vector<void *> vKept;
    for (MBUF_S *p = pstMbuf; p != nullptr && vKept.size() < MBUF_DBG_MAX_NODES; p = p->pstNext) {
        if ((p->ulFlag & MBUF_NOFREE) != 0) {
            vKept.push_back(p);
            if ((p->ulFlag & MBUF_PKTHDR) != 0) {
                vKept.push_back(p->pstCtlInfo);
            }
        }
    }
    MBUF_Destroy(pstMbuf);
    FreeLive(vKept);
}

void SettleExtSize(MBUF_S *pstMbuf) {
    for (MBUF_S *p = pstMbuf; p != nullptr; p = p->pstNext) {
        if ((p->ulFlag & MBUF_EXT) != 0) {
            p->ulExtSize = KRM_DbufLengthGET(p->pucExtBuf);
        }
    }
}

void FreeLeftOver(const std::vector<void *> &vBufs, const MBUF_S *pstMbuf) {
    std::vector<const void *> vOwned{pstMbuf->pstCtlInfo};
    for (const MBUF_S *p = pstMbuf; p != nullptr; p = p->pstNext) {
        vOwned.push_back(p);
        if ((p->ulFlag & MBUF_EXT) != 0) {
            vOwned.push_back(p->pucExtBuf);
        }
    }
    std::vector<void *> vLeft;
    for (void *p : vBufs) {
        if (std::find(vOwned.begin(), vOwned.end(), p) == vOwned.end()) {
            vLeft.push_back(p);
        }
    }
    FreeLive(vLeft);
}

void ExpectAllLive(const std::vector<void *> &vBufs, const char *pcWhat) {
    for (void *p : vBufs) {
        KRM_HOST_BUF_INFO_S info;
        if (KRM_HOST_BufferInfo(p, &info) != 0) {
            Fail("%s: piece %p released although the receive failed", pcWhat, p);
        }
    }
}

MBUF_TRANS_DESC_S RecvDesc(std::vector<void *> &vAddrs) {
    return MBUF_TRANS_DESC_S{static_cast<std::uint32_t>(vAddrs.size()),
                             reinterpret_cast<MBUF_IOVEC_S *>(vAddrs.data())};
}

}  // namespace krm::fuzz
