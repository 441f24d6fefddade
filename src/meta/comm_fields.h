// The fields of the common record (record 0) that accessors read and write:
// one table of name, offset, width and the value a getter returns when the
// packet has no block. The exported getter/setter pairs are stamped out from
// it, and the packet dump prints the record from it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "krm_mbuf/mbuf.h"

namespace krm::meta {

// X(exported stem, field of MBUF_CTL_COMM_S, kind). PAIR rows get the usual
// MBUF_Get<stem>/MBUF_Set<stem> pair; OWN rows have accessors of their own
// shape (flag operations, a setter without result, a getter with an out
// argument) written by hand over the same row.
#define KRM_META_COMM_FIELDS(X)                 \
    X(Flag, ulFlag, OWN)                        \
    X(VrId, ulVrId, PAIR)                       \
    X(VrfId, ulVrfId, PAIR)                     \
    X(ReceiveIfIndex, ulRcvIfIndex, PAIR)       \
    X(ReceivePhyIfIndex, ulRcvPhyIfIndex, PAIR) \
    X(SendIfIndex, ulSendIfIndex, PAIR)         \
    X(PathId, ulPathId, PAIR)                   \
    X(SockId, ulSocketId, PAIR)                 \
    X(ProtoType, usProtocolType, PAIR)          \
    X(DirectionType, usDirectionType, PAIR)     \
    X(TimeStamp, ulTimeStamp, PAIR)             \
    X(ExceptionId, ulExceptionId, PAIR)         \
    X(PortGrpId, ulPortGroupId, PAIR)           \
    X(PktPriority, usPktPriority, OWN)          \
    X(ProductProtoType, ulProductProtocolType, OWN)

enum class CommField : unsigned {
#define KRM_META_COMM_ENUM(stem, member, kind) stem,
    KRM_META_COMM_FIELDS(KRM_META_COMM_ENUM)
#undef KRM_META_COMM_ENUM
};

struct CommFieldDesc {
    const char *pcName;
    std::uint32_t ulOffset;
    std::uint32_t ulWidth;    // bytes: 2 or 4
    std::uint32_t ulMissing;  // all ones of the width
};

template <typename T>
constexpr CommFieldDesc MakeCommField(const char *pcName, std::uint32_t ulOffset) {
    static_assert(sizeof(T) == 2 || sizeof(T) == 4);
    return CommFieldDesc{pcName, ulOffset, sizeof(T), static_cast<std::uint32_t>(T(~T{0}))};
}

inline constexpr CommFieldDesc kCommFields[] = {
#define KRM_META_COMM_DESC(stem, member, kind) \
    MakeCommField<decltype(MBUF_CTL_COMM_S::member)>(#stem, offsetof(MBUF_CTL_COMM_S, member)),
    KRM_META_COMM_FIELDS(KRM_META_COMM_DESC)
#undef KRM_META_COMM_DESC
};

constexpr const CommFieldDesc &Comm(CommField eField) {
    return kCommFields[static_cast<unsigned>(eField)];
}

static_assert(Comm(CommField::ProtoType).ulMissing == 0xFFFF);
static_assert(Comm(CommField::ReceiveIfIndex).ulOffset == 12);
static_assert(Comm(CommField::PortGrpId).ulOffset == 56);

}  // namespace krm::meta
