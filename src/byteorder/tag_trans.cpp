// The control-information block on the receiving side: its head, its slot
// directory and every record in it, converted once per packet (from the
// packet-header node) or once per received tag message.
//
// The block's head bytes travel as one 32-bit word (mark 24-31, byte order
// 16-23, slot count 8-15, record count 0-7); once that word is reversed its
// host-order value gives the counts on either build. Records are dispatched
// through the exported record table. The translators trust the records'
// lengths as the sender wrote them; what bounds them is the memory the block
// lies in: the node's inline area, the pipe buffer it was received in, or a
// received message's buffer (or, for a message not in a buffer of its own,
// its received length).
#include <algorithm>
#include <cstddef>
#include <optional>

#include "byteorder/record.h"
#include "internal/bytes.h"
#include "internal/layout.h"
#include "internal/report.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::byteorder {
namespace {

constexpr std::uint32_t kHeadWordOff = kCtlHeadWordOffset;
constexpr std::uint32_t kUsedLenOff = offsetof(MBUF_CONTROL_BLK_S, usUsedLen);
constexpr std::uint32_t kCapacityOff = offsetof(MBUF_CONTROL_BLK_S, usCapacity);
// The slot directory; also the smallest block that holds a head.
constexpr std::uint32_t kSlotsOff = offsetof(MBUF_CONTROL_BLK_S, astSlot);
constexpr std::uint32_t kSlotTypes = MBUF_CTL_TYPE_NUM;

struct Head {
    std::uint32_t slotNum;
    std::uint32_t recNum;
    std::uint32_t usedLen;
    std::uint32_t capacity;
};

Head ReadHead(const std::uint8_t *blk) {
    const std::uint32_t word = Load32At(blk, kHeadWordOff);
    return Head{(word >> 8) & 0xFFu, word & 0xFFu, Load16At(blk, kUsedLenOff),
                Load16At(blk, kCapacityOff)};
}

Head ConvertHead(std::uint8_t *blk) {
    SwapInPlace32(blk + kHeadWordOff);
    SwapInPlace16(blk + kUsedLenOff);
    SwapInPlace16(blk + kCapacityOff);
    return ReadHead(blk);
}

// Where the record data begins for a block of this many slots.
std::uint32_t BaseOffset(std::uint32_t slotNum) {
    return (slotNum + kSlotTypes) * 4u;
}

std::uint32_t SlotOffset(std::uint32_t i) {
    return kSlotsOff + 4u * i;
}

struct Slot {
    std::uint32_t off;
    std::uint32_t len;
};

Slot ReadSlot(const std::uint8_t *blk, std::uint32_t i) {
    return Slot{Load16At(blk, SlotOffset(i)), Load16At(blk, SlotOffset(i) + 2)};
}

Slot ConvertSlot(std::uint8_t *blk, std::uint32_t i) {
    SwapInPlace16(blk + SlotOffset(i));
    SwapInPlace16(blk + SlotOffset(i) + 2);
    return ReadSlot(blk, i);
}

// False, after reporting, when slot i lies beyond the block's size.
bool SlotFits(std::uint8_t *blk, std::uint32_t size, std::uint32_t i) {
    const Rec directory{blk, size, i, kModByteOrderTrans};
    if (!directory.Fits(SlotOffset(i), 4)) {
        ReportOverrun(directory, SlotOffset(i), 4);
        return false;
    }
    return true;
}

// The record at off of a block of size bytes: it may reach to the end of
// the block's memory, whatever its slot says, and never past it.
Rec RecordIn(std::uint8_t *blk, std::uint32_t size, std::uint32_t type, std::uint32_t off) {
    const std::uint32_t start = std::min(off, size);
    return Rec{blk + start, size - start, type, kModByteOrderTrans};
}

// A received block is looked up as the sender left it described: the slots
// with a length, and no more of them than the record count says. The same
// walk as the block lookup of the record model, but through byte loads (a
// message in a received stream sits at any alignment) and over the slots
// up to the wanted one only, which the caller has checked lie within it.
std::optional<std::uint32_t> RecordInTagMsg(const std::uint8_t *tag, std::uint32_t recNum,
                                            std::uint32_t type) {
    if (type == MBUF_CTL_COMM) {
        return 0u;
    }
    std::uint32_t passed = 0;
    for (std::uint32_t j = 1; j < kSlotTypes; ++j) {
        if (passed == recNum) {
            return std::nullopt;
        }
        const Slot slot = ReadSlot(tag, j);
        if (j == type) {
            return slot.len != 0 ? std::optional<std::uint32_t>(slot.off) : std::nullopt;
        }
        if (slot.len != 0) {
            ++passed;
        }
    }
    return std::nullopt;
}

// The block's memory: the node's inline area or the pipe buffer it lives in.
// A buffer the platform reports as 0 bytes long has no room at all; the
// block's own account of its capacity is never taken for its size.
std::uint32_t BlockMemory(MBUF_S *pstMbuf) {
    if (pstMbuf->pstCtlInfo == &pstMbuf->stCtlInfo.stBlk) {
        return MBUF_CTLINFO_INLINE_LEN;
    }
    return KRM_DbufLengthGET(pstMbuf->pstCtlInfo);
}

// A received message's memory: the pipe buffer it is, or else (a message
// inside a larger stream) the received length its caller vouches for.
std::uint32_t MessageMemory(const void *tag, std::uint32_t revLen) {
    const std::uint32_t buffer = KRM_DbufLengthGET(tag);
    return buffer != 0 ? buffer : revLen;
}

std::uint32_t SockId(const std::uint8_t *blk) {
    return Load32At(blk, offsetof(MBUF_CTL_COMM_S, ulSocketId));
}

std::uint32_t ProtoType(const std::uint8_t *blk) {
    return Load16At(blk, offsetof(MBUF_CTL_COMM_S, usProtocolType));
}

}  // namespace
}  // namespace krm::byteorder

namespace bo = krm::byteorder;

extern "C" {

MBUF_API void MBUF_MbufMPktHdrTagByteOrderTrans(MBUF_S *pstMbuf) {
    if (pstMbuf == nullptr || pstMbuf->pstCtlInfo == nullptr) {
        return;
    }
    auto *blk = reinterpret_cast<std::uint8_t *>(pstMbuf->pstCtlInfo);
    const std::uint32_t size = bo::BlockMemory(pstMbuf);
    if (size < bo::kSlotsOff) {
        krm::Report(krm::kModByteOrderTrans, 1320, "Blk len %u < %u", size, bo::kSlotsOff);
        return;
    }
    const bo::Head head = bo::ConvertHead(blk);
    if (head.slotNum == 0) {
        return;
    }
    // Without a packet header the node has no records to find.
    const bool findRecords = (pstMbuf->ulFlag & MBUF_PKTHDR) != 0;
    for (std::uint32_t i = 0; i < head.slotNum && i < bo::kSlotTypes; ++i) {
        if (!bo::SlotFits(blk, size, i)) {
            return;
        }
        const bo::Slot slot = bo::ConvertSlot(blk, i);
        const bo::CtlFn fn = bo::CtlTranslator(i);
        if (!findRecords || (i != MBUF_CTL_COMM && slot.off == 0) || fn == nullptr) {
            continue;
        }
        const std::uint32_t off = i == MBUF_CTL_COMM ? 0u : slot.off;
        const std::int32_t ret = fn(bo::RecordIn(blk, size, i, off));
        if (ret != 0) {
            krm::Report(krm::kModByteOrderTrans, 118, "Fd %u Pro %u TagT %u Ret %u",
                        bo::SockId(blk), bo::ProtoType(blk), i, static_cast<std::uint32_t>(ret));
        }
    }
}

MBUF_API int32_t MBUF_CheckTagByteOrderLen(void *pTagMsg, uint32_t ulRevLen) {
    if (pTagMsg == nullptr) {
        return -1;
    }
    const bo::Head head = bo::ReadHead(static_cast<const std::uint8_t *>(pTagMsg));
    const std::uint32_t base = bo::BaseOffset(head.slotNum);
    if (ulRevLen < base) {
        krm::Report(krm::kModByteOrderTrans, 232, "RevLen=%u < %u %u", ulRevLen, base,
                    head.slotNum);
        return -1;
    }
    if (base + head.usedLen > ulRevLen) {
        krm::Report(krm::kModByteOrderTrans, 239, "RevLen=%u < %u + %u %u %u", ulRevLen, base,
                    head.usedLen, head.capacity, head.slotNum);
        return -1;
    }
    return 0;
}

MBUF_API int32_t MBUF_CheckTagOffsetLen(void *pTagMsg, uint32_t ulRevLen, uint32_t ulType) {
    if (pTagMsg == nullptr) {
        return -1;
    }
    const auto *tag = static_cast<const std::uint8_t *>(pTagMsg);
    // The head and the slot are read only inside the message's memory (its
    // pipe buffer, else the received length): a slot past its end is refused
    // as a record past it would be, at the slot's place.
    if (std::uint64_t{bo::SlotOffset(ulType)} + 4u > bo::MessageMemory(tag, ulRevLen)) {
        krm::Report(krm::kModByteOrderTrans, 269, "%u+%u<%u offset+len<revLen Type %u",
                    bo::SlotOffset(ulType), 4u, ulRevLen, ulType);
        return -1;
    }
    const std::uint32_t base = bo::BaseOffset(bo::ReadHead(tag).slotNum);
    const bo::Slot slot = bo::ReadSlot(tag, ulType);
    if (slot.off < base) {
        krm::Report(krm::kModByteOrderTrans, 262, "%u<%u %u Offset<BasOffSet Type %u", slot.off,
                    base, slot.len, ulType);
        return -1;
    }
    if (slot.off + slot.len > ulRevLen) {
        krm::Report(krm::kModByteOrderTrans, 269, "%u+%u<%u offset+len<revLen Type %u", slot.off,
                    slot.len, ulRevLen, ulType);
        return -1;
    }
    return 0;
}

MBUF_API void MBUF_TagByteOrderTrans(void *pTagMsg, uint32_t ulRevLen) {
    if (pTagMsg == nullptr) {
        return;
    }
    auto *tag = static_cast<std::uint8_t *>(pTagMsg);
    const std::uint32_t size = bo::MessageMemory(tag, ulRevLen);
    if (size < bo::kSlotsOff) {
        krm::Report(krm::kModByteOrderTrans, 1320, "Blk len %u < %u", size, bo::kSlotsOff);
        return;
    }
    const bo::Head head = bo::ConvertHead(tag);
    // Reported, not acted on: a message shorter than it says is still
    // converted, as far as its memory reaches.
    (void)MBUF_CheckTagByteOrderLen(tag, ulRevLen);
    if (head.slotNum == 0) {
        return;
    }
    std::uint8_t seen = 0;
    for (std::uint32_t i = 0; i < head.slotNum && i < bo::kSlotTypes; ++i) {
        if (!bo::SlotFits(tag, size, i)) {
            return;
        }
        const bo::Slot slot = bo::ConvertSlot(tag, i);
        const std::optional<std::uint32_t> off = bo::RecordInTagMsg(tag, head.recNum, i);
        const bo::CtlFn fn = bo::CtlTranslator(i);
        if (off.has_value() && fn != nullptr) {
            if (*off >= ulRevLen) {
                krm::Report(krm::kModByteOrderTrans, 190, "RevLen=%u < %u type=%u", ulRevLen, *off,
                            i);
            }
            const std::int32_t ret = fn(bo::RecordIn(tag, size, i, *off));
            if (ret != 0) {
                krm::Report(krm::kModByteOrderTrans, 203, "Fd %u Pro %u TagT %u Ret %u",
                            bo::SockId(tag), bo::ProtoType(tag), i,
                            static_cast<std::uint32_t>(ret));
            }
        }
        if (slot.len != 0) {
            const std::int32_t valid = MBUF_CheckTagOffsetLen(tag, ulRevLen, i);
            ++seen;
            if (valid != 0 || seen == head.recNum) {
                return;
            }
        }
    }
}

}  // extern "C"
