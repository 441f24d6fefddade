#include "meta_support.h"

#include <cstring>

#include "internal/bytes.h"

namespace krm::metatest {

Bytes Zeros(std::uint32_t ulLen, const std::vector<Patch> &patches) {
    Bytes out(ulLen, 0);
    for (const Patch &p : patches) {
        std::memcpy(out.data() + p.ulOffset, p.bytes.data(), p.bytes.size());
    }
    return out;
}

Bytes U16(std::uint16_t v) {
    Bytes out(2);
    krm::Store16(out.data(), v);
    return out;
}

Bytes U32(std::uint32_t v) {
    Bytes out(4);
    krm::Store32(out.data(), v);
    return out;
}

Bytes Cat(const std::vector<Bytes> &parts) {
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

Bytes SubTlv(std::uint16_t usType, const Bytes &value) {
    return Cat({U16(usType), U16(static_cast<std::uint16_t>(value.size())), value});
}

Bytes TimeBytes(const KRM_SYSTIME_S &t) {
    const auto *p = reinterpret_cast<const std::uint8_t *>(&t);
    return Bytes(p, p + sizeof(t));
}

Bytes TlvRecord(const Bytes &list) {
    return Cat({U16(0), U16(static_cast<std::uint16_t>(list.size())), list});
}

KRM_HOST_BUF_INFO_S BufInfo(const void *pBuf) {
    KRM_HOST_BUF_INFO_S stInfo{};
    EXPECT_EQ(KRM_HOST_BufferInfo(pBuf, &stInfo), 0u) << "not a live buffer";
    return stInfo;
}

std::uint8_t *Rec(MBUF_S *pstMbuf, std::uint32_t ulType) {
    return static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulType));
}

Bytes BlockBytes(const MBUF_S *pstMbuf) {
    const auto *p = reinterpret_cast<const std::uint8_t *>(pstMbuf->pstCtlInfo);
    return p == nullptr ? Bytes{}
                        : Bytes(p, p + MBUF_CTL_FIXED_LEN + pstMbuf->pstCtlInfo->usUsedLen);
}

void MetaTest::SetUp() {
    HostTest::SetUp();
    MBUF_STRUCT_INIT_S stPlain{0, MBUF_TYPE_DATA};
    (void)MBUF_StructInit(&m_stPlain, sizeof(MBUF_S), &stPlain);
    MBUF_STRUCT_INIT_S stHdr{MBUF_PKTHDR, MBUF_TYPE_DATA};
    (void)MBUF_StructInit(&m_stNoBlock, sizeof(MBUF_S), &stHdr);
    m_stNoBlock.pstCtlInfo = nullptr;
}

void MetaTest::TearDown() {
    for (MBUF_S *pstMbuf : m_packets) {
        MBUF_Destroy_fl(pstMbuf, __FILE__, __LINE__);
    }
    m_packets.clear();
    HostTest::TearDown();
}

MBUF_S *MetaTest::NewPacket() {
    MBUF_S *pstMbuf = MBUF_CreateForControlPacket_fl(0, 64, 0, kModule, __FILE__, __LINE__);
    EXPECT_NE(pstMbuf, nullptr);
    if (pstMbuf != nullptr) {
        m_packets.push_back(pstMbuf);
    }
    return pstMbuf;
}

std::uint8_t *MetaTest::AddRecord(MBUF_S *pstMbuf, std::uint32_t ulType, std::uint32_t ulLen) {
    EXPECT_EQ(MBUF_CreateControlInfo_fl(pstMbuf, ulType, ulLen, kModule, __FILE__, __LINE__),
              MBUF_OK)
        << "record " << ulType;
    return Rec(pstMbuf, ulType);
}

std::uint8_t *MetaTest::AddRecordBytes(MBUF_S *pstMbuf, std::uint32_t ulType, const Bytes &bytes) {
    std::uint8_t *pucRec = AddRecord(pstMbuf, ulType, static_cast<std::uint32_t>(bytes.size()));
    if (pucRec != nullptr) {
        std::memcpy(pucRec, bytes.data(), bytes.size());
    }
    return pucRec;
}

}  // namespace krm::metatest
