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
    KRM_HOST_SetTickHz(kTickHz);
    KRM_HOST_SetTick(tick_);
    KRM_HOST_SetWallClock(kWall, 0);
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
    if (p == nullptr) {
        return nullptr;
    }
    EXPECT_EQ(MBUF_PROTOINT_CreateIdInfo(p, ulSessId, 0, 0, pstCtx), 0u);
    SetRecWord(p, kSeqOff, ulSeq);
    if (bGreen) {
        EXPECT_EQ(MBUF_SetFlag3(p, 2), 0);
    }
    return p;
}

void ProtoIntTest::Advance(std::uint64_t ullTicks) {
    tick_ += ullTicks;
    KRM_HOST_SetTick(tick_);
}

const SessModel *LogModel::Find(std::uint32_t id) const {
    const auto it = sess_.find(id);
    return it == sess_.end() ? nullptr : &it->second;
}

// Written from the rules: kinds 0..5 decode to (ring, sequence, direction);
// a green packet is a received one with flag-3 bit 2; a gap is a sequence
// that does not follow a non-zero last one.
Outcome LogModel::Record(std::uint32_t id, std::uint32_t kind, std::uint32_t len, std::uint32_t seq,
                         bool green, std::uint64_t now) {
    Outcome out;
    out.seqAfter = seq;
    const auto it = sess_.find(id);
    if (kind > 5 || id == 0 || id > 4096 || it == sess_.end()) {
        return out;
    }
    out.sessOut = id;
    const bool ring = kind <= 3;
    const bool advance = kind <= 1 || kind >= 4;
    const bool rcv = kind % 2 == 1;
    SessModel &s = it->second;
    const bool isGreen = rcv && green;
    RingModel &r = rcv ? s.rcv : s.snd;
    CntModel &c = rcv ? s.rcvCnt[isGreen ? 1 : 0] : s.sndCnt;
    bool gap = false;
    if (ring) {
        r.len[r.pos] = static_cast<std::uint16_t>((len % 32768) + (isGreen ? 32768 : 0));
        r.tick[r.pos] = now;
        r.lastGreen = isGreen ? 1 : 0;
        gap = c.lastSeq != 0 && c.lastSeq + 1 != seq;
        r.gap = gap ? 1 : 0;
        r.pos = static_cast<std::uint8_t>(r.pos == 9 ? 0 : r.pos + 1);
        c.lastSeq = seq;
        c.count += 1;
    }
    if (advance) {
        c.sndSeq += 1;
        out.seqAfter = c.sndSeq;
    }
    out.result = gap ? Suppress(now) : 0;
    return out;
}

std::uint32_t LogModel::Suppress(std::uint64_t now) {
    const std::uint64_t edge = now >= kWindow ? now - kWindow : 0;
    if (lastReport_ > edge) {
        return 2;
    }
    lastReport_ = now;
    return 1;
}

namespace {

void ExpectRing(const RingModel &m, const MBUF_PROTOINT_RING_S &r, const std::string &where) {
    for (std::uint32_t i = 0; i < 10; ++i) {
        EXPECT_EQ(r.ausLen[i], m.len[i]) << where << " slot " << i;
        const std::uint64_t tick = (std::uint64_t{r.astTime[i].ulHigh} << 32) | r.astTime[i].ulLow;
        EXPECT_EQ(tick, m.tick[i]) << where << " slot " << i;
    }
    EXPECT_EQ(r.ucPos, m.pos) << where;
    EXPECT_EQ(r.ucLastGreen, m.lastGreen) << where;
    EXPECT_EQ(r.ucGap, m.gap) << where;
}

void ExpectCnt(const CntModel &m, const MBUF_PROTOINT_CNT_S &c, const std::string &where) {
    EXPECT_EQ(c.ulCount, m.count) << where;
    EXPECT_EQ(c.ulLastSeq, m.lastSeq) << where;
    EXPECT_EQ(c.ulSndSeq, m.sndSeq) << where;
}

}  // namespace

void ExpectSame(const SessModel &model, const MBUF_PROTOINT_SESS_S &sess,
                const std::string &where) {
    ExpectRing(model.snd, sess.stSnd.stRing, where + " snd");
    ExpectCnt(model.sndCnt, sess.stSnd.stCnt, where + " snd");
    ExpectRing(model.rcv, sess.stRcv.stRing, where + " rcv");
    ExpectCnt(model.rcvCnt[0], sess.stRcv.astCnt[0], where + " rcv other");
    ExpectCnt(model.rcvCnt[1], sess.stRcv.astCnt[1], where + " rcv green");
}

}  // namespace krm::protointtest
