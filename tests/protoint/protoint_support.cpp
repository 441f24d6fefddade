#include "protoint_support.h"

#include <cstring>

namespace krm::protointtest {

std::uint32_t RecWord(MBUF_S *pstMbuf, std::uint32_t ulOff) {
    const auto *p =
        static_cast<const std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_STACKDEBUG));
    std::uint32_t v = 0;
    if (p != nullptr) {
        std::memcpy(&v, p + ulOff, sizeof(v));
    }
    return v;
}

void SetRecWord(MBUF_S *pstMbuf, std::uint32_t ulOff, std::uint32_t ulValue) {
    auto *p = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, MBUF_CTL_STACKDEBUG));
    ASSERT_NE(p, nullptr);
    std::memcpy(p + ulOff, &ulValue, sizeof(ulValue));
}

void ProtoIntTest::SetUp() {
    HostTest::SetUp();
    KRM_HOST_SetTickHz(1000);
    KRM_HOST_SetTick(tick_);
    // 2024-03-05 10:20:07 universal: seconds below 10 show the log's
    // unpadded second field.
    KRM_HOST_SetWallClock(1709634007u, 0);
}

void ProtoIntTest::TearDown() {
    for (MBUF_S *p : packets_) {
        MBUF_Destroy_fl(p, __FILE__, __LINE__);
    }
    for (MBUF_PROTOINT_CTX_S *c : ctxs_) {
        MBUF_PROTOINT_Uninit(c);
    }
    HostTest::TearDown();
}

MBUF_PROTOINT_CTX_S *ProtoIntTest::NewCtx(std::uint32_t ulLockMode) {
    const MBUF_PROTOINT_PARA_S stPara{kMid, kCompArg, ulLockMode};
    MBUF_PROTOINT_CTX_S *pstCtx = MBUF_PROTOINT_Init(&stPara);
    EXPECT_NE(pstCtx, nullptr);
    if (pstCtx != nullptr) {
        ctxs_.push_back(pstCtx);
    }
    return pstCtx;
}

void ProtoIntTest::DropCtx(MBUF_PROTOINT_CTX_S *pstCtx) {
    std::erase(ctxs_, pstCtx);
    MBUF_PROTOINT_Uninit(pstCtx);
}

MBUF_S *ProtoIntTest::Packet(std::uint32_t ulLen) {
    MBUF_S *p = MBUF_CreateForAppPacket_fl(0, ulLen, 0, kMid, __FILE__, __LINE__);
    EXPECT_NE(p, nullptr);
    if (p != nullptr) {
        packets_.push_back(p);
    }
    return p;
}

MBUF_S *ProtoIntTest::Stamped(MBUF_PROTOINT_CTX_S *pstCtx, std::uint32_t ulSessId,
                              std::uint32_t ulLen, std::uint32_t ulSeq, bool bGreen) {
    MBUF_S *p = Packet(ulLen);
    if (p != nullptr) {
        EXPECT_EQ(MBUF_PROTOINT_CreateIdInfo(p, ulSessId, 0, 0, pstCtx), 0u);
        SetRecWord(p, kSeqOff, ulSeq);
        EXPECT_EQ(bGreen ? MBUF_SetFlag3(p, 2) : 0, 0);
    }
    return p;
}

std::uint32_t ProtoIntTest::Record(MBUF_PROTOINT_CTX_S *pstCtx, std::uint32_t ulSessId,
                                   std::uint32_t ulKind, std::uint32_t ulLen, std::uint32_t ulSeq,
                                   bool bGreen) {
    return MBUF_PROTOINT_RecordPacket(Stamped(pstCtx, ulSessId, ulLen, ulSeq, bGreen), ulKind,
                                      nullptr, pstCtx);
}

void ProtoIntTest::Advance(std::uint64_t ullTicks) {
    tick_ += ullTicks;
    KRM_HOST_SetTick(tick_);
}

const MBUF_PROTOINT_SESS_S *LogModel::Find(std::uint32_t id) const {
    const auto it = sess_.find(id);
    return it == sess_.end() ? nullptr : &it->second;
}

// Written from the rules: kinds 0..5 decode to (ring, sequence, direction);
// a green packet is a received one with flag-3 bit 2; a gap is a sequence
// that does not follow a non-zero last one.
Outcome LogModel::Record(std::uint32_t id, std::uint32_t kind, std::uint32_t len, std::uint32_t seq,
                         bool green, std::uint64_t now) {
    Outcome out{0, 0, seq};
    const auto it = sess_.find(id);
    if (kind > 5 || id == 0 || id > 4096 || it == sess_.end()) {
        return out;
    }
    out.sessOut = id;
    const bool rcv = kind % 2 == 1, isGreen = rcv && green;
    MBUF_PROTOINT_RING_S &r = rcv ? it->second.stRcv.stRing : it->second.stSnd.stRing;
    MBUF_PROTOINT_CNT_S &c =
        rcv ? it->second.stRcv.astCnt[isGreen ? 1 : 0] : it->second.stSnd.stCnt;
    bool gap = false;
    if (kind <= 3) {
        r.ausLen[r.ucPos] = static_cast<std::uint16_t>((len % 32768) + (isGreen ? 32768 : 0));
        r.astTime[r.ucPos] = {static_cast<std::uint32_t>(now),
                              static_cast<std::uint32_t>(now >> 32)};
        r.ucLastGreen = isGreen ? 1 : 0;
        gap = c.ulLastSeq != 0 && c.ulLastSeq + 1 != seq;
        r.ucGap = gap ? 1 : 0;
        r.ucPos = static_cast<std::uint8_t>(r.ucPos == 9 ? 0 : r.ucPos + 1);
        c.ulLastSeq = seq;
        c.ulCount += 1;
    }
    if (kind <= 1 || kind >= 4) {
        out.seqAfter = ++c.ulSndSeq;
    }
    out.result = gap ? Suppress(now) : 0;
    return out;
}

std::uint32_t LogModel::Suppress(std::uint64_t now) {
    if (lastReport_ > (now >= kWindow ? now - kWindow : 0)) {
        return 2;
    }
    lastReport_ = now;
    return 1;
}

std::vector<std::uint8_t> Bytes(const MBUF_PROTOINT_SESS_S &sess) {
    const auto *p = reinterpret_cast<const std::uint8_t *>(&sess);
    return {p, p + sizeof(sess)};
}

}  // namespace krm::protointtest
