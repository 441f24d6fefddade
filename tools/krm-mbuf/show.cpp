#include "show.h"

#include <cstddef>
#include <cstdio>

#include "core/debug_common.h"
#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"
#include "meta/meta_dump.h"

namespace krm::tool {
namespace {

struct CommField {
    const char *pcName;
    std::uint32_t ulOff;
    std::uint32_t ulSize;
};
#define KRM_COMM(f) \
    { #f, offsetof(MBUF_CTL_COMM_S, f), sizeof(MBUF_CTL_COMM_S::f) }
constexpr CommField kCommFields[] = {
    KRM_COMM(ulFlag),          KRM_COMM(ulVrId),          KRM_COMM(ulVrfId),
    KRM_COMM(ulRcvIfIndex),    KRM_COMM(ulRcvPhyIfIndex), KRM_COMM(ulSendIfIndex),
    KRM_COMM(ulPathId),        KRM_COMM(ulSocketId),      KRM_COMM(usProtocolType),
    KRM_COMM(usDirectionType), KRM_COMM(ulTimeStamp),     KRM_COMM(ulExceptionId),
    KRM_COMM(ulPortGroupId),   KRM_COMM(usPktPriority),   KRM_COMM(ulProductProtocolType),
};
#undef KRM_COMM

struct BlockHead {
    std::uint32_t ulMark, ulOrder, ulSlots, ulRecs, ulUsed, ulCap;
};

BlockHead HeadOf(const std::vector<std::uint8_t> &v) {
    const std::uint32_t ul = Load32At(v.data(), 84);
    return {ul >> 24,  (ul >> 16) & 0xFF,      (ul >> 8) & 0xFF,
            ul & 0xFF, Load16At(v.data(), 88), Load16At(v.data(), 90)};
}

// A record present in the block, cut to the block's bytes.
struct RecordView {
    std::uint32_t ulType;
    std::uint32_t ulOffset;
    std::uint32_t ulLen;    // as the slot says
    std::uint32_t ulAvail;  // what the block holds of it
};

std::vector<RecordView> RecordsOf(const std::vector<std::uint8_t> &v) {
    std::vector<RecordView> vRecs;
    const BlockHead stH = HeadOf(v);
    const std::uint32_t ulSlots = stH.ulSlots < MBUF_CTL_TYPE_NUM ? stH.ulSlots : MBUF_CTL_TYPE_NUM;
    for (std::uint32_t t = 1; t < ulSlots; ++t) {
        const std::uint32_t ulOff = Load16At(v.data(), 92 + 4 * t);
        const std::uint32_t ulLen = Load16At(v.data(), 92 + 4 * t + 2);
        if (ulOff == 0) {
            continue;
        }
        std::uint32_t ulAvail = 0;
        if (ulOff < v.size()) {
            const auto ulRoom = static_cast<std::uint32_t>(v.size() - ulOff);
            ulAvail = ulLen < ulRoom ? ulLen : ulRoom;
        }
        vRecs.push_back({t, ulOff, ulLen, ulAvail});
    }
    return vRecs;
}

// p: the record in host order; pWire: the same bytes as written.
void ShowSubTlvs(const std::uint8_t *p, const std::uint8_t *pWire, std::uint32_t ulAvail,
                 Sink &stOut) {
    if (ulAvail < MBUF_CTL_TLV_REC_HEAD_LEN) {
        return;
    }
    std::uint32_t ulList = Load16At(p, 2);
    stOut.Num("list", ulList);
    stOut.List("sub-TLVs");
    std::uint32_t ulAt = MBUF_CTL_TLV_REC_HEAD_LEN;
    while (ulList >= 4 && ulAt + 4 <= ulAvail) {
        const std::uint32_t ulLen = Load16At(p, ulAt + 2);
        stOut.Open("");
        stOut.Num("type", Load16At(p, ulAt));
        stOut.Num("len", ulLen);
        const std::uint32_t ulHave = ulAvail - ulAt - 4;
        stOut.Bytes("wire value", pWire + ulAt + 4, ulLen < ulHave ? ulLen : ulHave);
        stOut.Close();
        if (ulLen + 4 > ulList || ulLen > ulHave) {
            break;
        }
        ulAt += ulLen + 4;
        ulList -= ulLen + 4;
    }
    stOut.Close();
}

void ShowRecord(const DecodedPacket &stPkt, const RecordView &r, Sink &stOut) {
    const std::vector<std::uint8_t> &v = stPkt.vBlock;
    const std::uint8_t *pWire =
        (stPkt.vWireBlock.size() == v.size() ? stPkt.vWireBlock.data() : v.data()) + r.ulOffset;
    stOut.Open("");
    stOut.Num("type", r.ulType);
    stOut.Str("name", dbg::RecordName(r.ulType));
    stOut.Num("offset", r.ulOffset);
    stOut.Num("len", r.ulLen);
    if (r.ulAvail < r.ulLen) {
        stOut.Str("note", "record reaches past the block; cut to " + std::to_string(r.ulAvail));
    }
    const std::uint8_t *p = v.data() + r.ulOffset;
    if (r.ulType == MBUF_CTL_STACKDEBUG) {
        std::vector<std::string> vLines;
        meta::DumpStackDebugEntries(
            p, r.ulAvail,
            [](void *pCtx, const char *pcLine) {
                static_cast<std::vector<std::string> *>(pCtx)->emplace_back(pcLine);
            },
            &vLines);
        stOut.Lines("stamps", vLines);
    } else if (r.ulType == MBUF_CTL_LINK || r.ulType == MBUF_CTL_PKTSEND ||
               r.ulType == MBUF_CTL_PACKET) {
        ShowSubTlvs(p, pWire, r.ulAvail, stOut);
    } else {
        stOut.Bytes("wire bytes", pWire, r.ulAvail);
    }
    stOut.Close();
}

void ShowComm(const std::vector<std::uint8_t> &v, Sink &stOut) {
    stOut.Open("COMM");
    for (const CommField &f : kCommFields) {
        if (f.ulSize == 4) {
            stOut.Word(f.pcName, Load32At(v.data(), f.ulOff));
        } else {
            stOut.Num(f.pcName, Load16At(v.data(), f.ulOff));
        }
    }
    stOut.Str("ulFlag bits", BitNames(Load32At(v.data(), 0)));
    stOut.Close();
}

void ShowBlock(const DecodedPacket &stPkt, Sink &stOut) {
    const std::vector<std::uint8_t> &v = stPkt.vBlock;
    if (v.empty()) {
        stOut.Str("block", "none");
        return;
    }
    if (v.size() < MBUF_CTL_FIXED_LEN) {
        stOut.Str("block", "cut short: " + std::to_string(v.size()) + " bytes");
        return;
    }
    const BlockHead stH = HeadOf(v);
    stOut.Open("block");
    stOut.Num("mark", stH.ulMark);
    stOut.Num("order", stH.ulOrder);
    stOut.Num("slots", stH.ulSlots);
    stOut.Num("records", stH.ulRecs);
    stOut.Num("used", stH.ulUsed);
    stOut.Num("capacity", stH.ulCap);
    ShowComm(v, stOut);
    stOut.List("records");
    for (const RecordView &r : RecordsOf(v)) {
        ShowRecord(stPkt, r, stOut);
    }
    stOut.Close();
    stOut.Close();
}

void ShowFlags(const DecodedPacket &stPkt, Sink &stOut) {
    stOut.Open("flag words");
    stOut.Word("flag2", stPkt.stWords.ulFlag2);
    stOut.Str("flag2 bits", BitNames(stPkt.stWords.ulFlag2));
    if (stPkt.stWords.oFlag3) {
        stOut.Word("flag3", *stPkt.stWords.oFlag3);
        stOut.Str("flag3 bits", BitNames(*stPkt.stWords.oFlag3));
    }
    if (stPkt.stWords.oTotalLen) {
        stOut.Num("total length", *stPkt.stWords.oTotalLen);
    }
    stOut.Close();
}

void ShowNodes(const DecodedPacket &stPkt, Sink &stOut) {
    if (stPkt.vNodes.empty()) {
        return;
    }
    stOut.List("nodes");
    for (const Node &n : stPkt.vNodes) {
        char acFlags[96];
        dbg::FlagNames(n.ulFlag, acFlags, sizeof(acFlags));
        stOut.Open("");
        stOut.Str("flags", acFlags);
        stOut.Num("offset", n.ulOffset);
        stOut.Num("len", n.ulDataLen);
        if ((n.ulFlag & MBUF_EXT) != 0) {
            stOut.Num("ext size", n.ulExtSize);
        }
        stOut.Close();
    }
    stOut.Close();
}

}  // namespace

std::string BitNames(std::uint32_t ulWord) {
    std::string s;
    for (std::uint32_t b = 0; b < 32; ++b) {
        if ((ulWord >> b & 1u) != 0) {
            s += (s.empty() ? "bit" : "|bit") + std::to_string(b);
        }
    }
    return s.empty() ? "none" : s;
}

void ShowDecoded(const Decoded &stDec, Sink &stOut) {
    stOut.Open("inspect");
    stOut.Str("kind", WireKindName(stDec.eKind));
    stOut.Str("byte order", OrderName(stDec.ucOrder));
    stOut.Lines("notes", stDec.vNotes);
    stOut.List("packets");
    for (const DecodedPacket &stPkt : stDec.vPackets) {
        stOut.Open("");
        ShowNodes(stPkt, stOut);
        stOut.Bytes("data", stPkt.vData.data(), stPkt.vData.size());
        ShowFlags(stPkt, stOut);
        ShowBlock(stPkt, stOut);
        stOut.Close();
    }
    stOut.Close();
    stOut.Close();
    stOut.Finish();
}

std::vector<std::string> PacketComments(const DecodedPacket &stPkt) {
    std::vector<std::string> v;
    char ac[160];
    (void)std::snprintf(ac, sizeof(ac), "flag2 0x%08X (%s)", stPkt.stWords.ulFlag2,
                        BitNames(stPkt.stWords.ulFlag2).c_str());
    v.emplace_back(ac);
    if (stPkt.stWords.oFlag3) {
        (void)std::snprintf(ac, sizeof(ac), "flag3 0x%08X (%s)", *stPkt.stWords.oFlag3,
                            BitNames(*stPkt.stWords.oFlag3).c_str());
        v.emplace_back(ac);
    }
    if (stPkt.vBlock.size() < MBUF_CTL_FIXED_LEN) {
        return v;
    }
    const auto &b = stPkt.vBlock;
    (void)std::snprintf(ac, sizeof(ac),
                        "COMM flags 0x%08X rcvif %u sendif %u path 0x%X socket 0x%X priority %u",
                        Load32At(b.data(), offsetof(MBUF_CTL_COMM_S, ulFlag)),
                        Load32At(b.data(), offsetof(MBUF_CTL_COMM_S, ulRcvIfIndex)),
                        Load32At(b.data(), offsetof(MBUF_CTL_COMM_S, ulSendIfIndex)),
                        Load32At(b.data(), offsetof(MBUF_CTL_COMM_S, ulPathId)),
                        Load32At(b.data(), offsetof(MBUF_CTL_COMM_S, ulSocketId)),
                        Load16At(b.data(), offsetof(MBUF_CTL_COMM_S, usPktPriority)));
    v.emplace_back(ac);
    for (const RecordView &r : RecordsOf(b)) {
        (void)std::snprintf(ac, sizeof(ac), "record %u %s len %u", r.ulType,
                            dbg::RecordName(r.ulType), r.ulLen);
        v.emplace_back(ac);
    }
    return v;
}

}  // namespace krm::tool
