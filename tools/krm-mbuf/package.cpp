// The pipe package form: nodes as the sender laid them out, each external
// buffer after its node, a separate control block last.
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "internal/bytes.h"
#include "krm_mbuf/mbuf.h"
#include "wire.h"

namespace krm::tool {
namespace {

constexpr std::size_t kNode = sizeof(MBUF_S);
constexpr std::size_t kCtlArea = offsetof(MBUF_S, stCtlInfo);
// The inline block is there when its head word carries the block mark: the
// node piece may end with its data, before the link words that would say.
constexpr std::size_t kCtlHeadWord = MBUF_CTL_COMM_LEN;
constexpr std::size_t kInlineCap = 872;  // a node's data may reach this far without a buffer
static_assert(kNode == 936 && MBUF_CTLINFO_INLINE_LEN == 448);

std::string Say(const char *pcFmt, unsigned long a, unsigned long b = 0) {
    return Reason(pcFmt, a, b);
}

// Splits the file into packets of pieces, checking every count and length
// against the bytes that are there.
std::optional<std::string> Split(const std::uint8_t *p, std::size_t n,
                                 std::vector<PiecePacket> &vOut) {
    std::size_t ulAt = sizeof(kPackageMagic);
    auto take32 = [&](std::uint32_t &ul) {
        if (ulAt + 4 > n) {
            return false;
        }
        ul = LoadBe32(p + ulAt);
        ulAt += 4;
        return true;
    };
    std::uint32_t ulPkts = 0;
    if (!take32(ulPkts) || ulPkts == 0 || ulPkts > kPackageMaxPackets) {
        return Say("pipe package: packet count missing or not in 1..%lu", kPackageMaxPackets);
    }
    for (std::uint32_t i = 0; i < ulPkts; ++i) {
        std::uint32_t ulPieces = 0;
        if (!take32(ulPieces) || ulPieces == 0 || ulPieces > kPackageMaxPieces) {
            return Say("pipe package cut short or bad: packet %lu piece count", i);
        }
        PiecePacket vPkt;
        for (std::uint32_t j = 0; j < ulPieces; ++j) {
            std::uint32_t ulLen = 0;
            if (!take32(ulLen) || ulLen > n - ulAt) {
                return Say("pipe package cut short: packet %lu piece %lu", i, j);
            }
            vPkt.emplace_back(p + ulAt, p + ulAt + ulLen);
            ulAt += ulLen;
        }
        vOut.push_back(std::move(vPkt));
    }
    return std::nullopt;
}

struct NodeView {
    std::uint8_t auc[kNode] = {};
    bool bSwap = false;
    std::uint32_t U32(std::size_t off) const {
        const std::uint32_t v = Load32(auc + off);
        return bSwap ? Swap32(v) : v;
    }
};

std::optional<std::string> Rebuild(const PiecePacket &vPieces, Decoded &stOut,
                                   DecodedPacket &stPkt) {
    std::size_t ulAt = 0;
    bool bMore = true;
    NodeView stHead;
    while (bMore) {
        if (ulAt >= vPieces.size()) {
            return Say("pipe package: node %lu announced but missing", stPkt.vNodes.size());
        }
        NodeView stN;
        const Piece &vNode = vPieces[ulAt++];
        if (!vNode.empty()) {  // an empty piece may have no address at all
            std::memcpy(stN.auc, vNode.data(), vNode.size() < kNode ? vNode.size() : kNode);
        }
        const std::uint8_t ucOrder = stN.auc[offsetof(MBUF_S, ucByteOrder)];
        if (stN.auc[offsetof(MBUF_S, ucMagic)] != MBUF_MAGIC_LIVE) {
            return Say("pipe package: node %lu magic 0x%02lx, not a live node", stPkt.vNodes.size(),
                       stN.auc[offsetof(MBUF_S, ucMagic)]);
        }
        stN.bSwap = ucOrder != MBUF_BYTEORDER_HOST && ucOrder != MBUF_BYTEORDER_MARK_AA &&
                    ucOrder != 0xBB && ucOrder != 0;
        if (stPkt.vNodes.empty()) {
            stOut.ucOrder = stN.bSwap ? ucOrder : MBUF_BYTEORDER_HOST;
            stHead = stN;
        }
        Node stNode{stN.U32(offsetof(MBUF_S, ulFlag)), stN.U32(offsetof(MBUF_S, ulDataLen)),
                    stN.U32(offsetof(MBUF_S, ulRsv2)), 0};
        const std::uint8_t *pucStore = stN.auc;
        std::size_t ulStore = vNode.size() < kInlineCap ? vNode.size() : kInlineCap;
        if ((stNode.ulFlag & MBUF_EXT) != 0) {
            stNode.ulExtSize = stN.U32(offsetof(MBUF_S, ulExtSize));
            if (ulAt >= vPieces.size()) {
                return Say("pipe package: node %lu has no piece for its external buffer",
                           stPkt.vNodes.size());
            }
            pucStore = vPieces[ulAt].data();
            ulStore = vPieces[ulAt++].size();
        }
        if (std::uint64_t{stNode.ulOffset} + stNode.ulDataLen > ulStore) {
            return Say("pipe package: node %lu data reaches past its %lu bytes",
                       stPkt.vNodes.size(), ulStore);
        }
        stPkt.vData.insert(stPkt.vData.end(), pucStore + stNode.ulOffset,
                           pucStore + stNode.ulOffset + stNode.ulDataLen);
        stPkt.vNodes.push_back(stNode);
        bMore = stN.U32(offsetof(MBUF_S, ulRsv0)) != 0;
    }
    stPkt.stWords.ulFlag2 = stHead.U32(offsetof(MBUF_S, ulFlag2));
    stPkt.stWords.oFlag3 = stHead.U32(offsetof(MBUF_S, ulFlag3));
    stPkt.stWords.oTotalLen = stHead.U32(offsetof(MBUF_S, ulTotalDataLen));
    const std::uint32_t ulHeadFlag = stPkt.vNodes.front().ulFlag;
    if ((ulHeadFlag & MBUF_FLAG_CTLINFO_SENT) != 0) {
        if (ulAt >= vPieces.size()) {
            return std::string("pipe package: the control block piece is missing");
        }
        stPkt.vBlock = vPieces[ulAt++];
    } else if ((stHead.U32(kCtlArea + kCtlHeadWord) >> 24) == MBUF_CTL_BLK_MARK) {
        stPkt.vBlock.assign(stHead.auc + kCtlArea, stHead.auc + kCtlArea + MBUF_CTLINFO_INLINE_LEN);
    }
    if (ulAt != vPieces.size()) {
        stOut.vNotes.push_back(Say("%lu pieces left over after the packet", vPieces.size() - ulAt));
    }
    if (!stPkt.vBlock.empty() && stPkt.vBlock.size() < sizeof(MBUF_CONTROL_BLK_S)) {
        return Say("pipe package: control block of %lu bytes, the fixed part needs %lu",
                   stPkt.vBlock.size(), sizeof(MBUF_CONTROL_BLK_S));
    }
    if (!stPkt.vBlock.empty() && stHead.bSwap) {
        stPkt.vWireBlock = stPkt.vBlock;
        MBUF_TagByteOrderTrans(stPkt.vBlock.data(),
                               static_cast<std::uint32_t>(stPkt.vBlock.size()));
    }
    if (stPkt.vWireBlock.empty()) {
        stPkt.vWireBlock = stPkt.vBlock;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> DecodePackage(const std::uint8_t *p, std::size_t n, Decoded &stOut) {
    std::vector<PiecePacket> vPkts;
    if (auto oErr = Split(p, n, vPkts)) {
        return oErr;
    }
    for (const auto &vPieces : vPkts) {
        DecodedPacket stPkt;
        if (auto oErr = Rebuild(vPieces, stOut, stPkt)) {
            return oErr;
        }
        stOut.vPackets.push_back(std::move(stPkt));
    }
    return std::nullopt;
}

std::vector<std::uint8_t> EncodePackage(const std::vector<PiecePacket> &vPackets) {
    std::vector<std::uint8_t> v(kPackageMagic, kPackageMagic + sizeof(kPackageMagic));
    auto put32 = [&v](std::uint32_t ul) {
        std::uint8_t auc[4];
        StoreBe32(auc, ul);
        v.insert(v.end(), auc, auc + 4);
    };
    put32(static_cast<std::uint32_t>(vPackets.size()));
    for (const auto &vPkt : vPackets) {
        put32(static_cast<std::uint32_t>(vPkt.size()));
        for (const auto &vPiece : vPkt) {
            put32(static_cast<std::uint32_t>(vPiece.size()));
            v.insert(v.end(), vPiece.begin(), vPiece.end());
        }
    }
    return v;
}

}  // namespace krm::tool
