#include "meta_support.h"

#include <cstring>

#include "internal/bytes.h"

namespace krm::metatest {

std::vector<std::uint8_t> Bytes(std::uint32_t ulLen, const std::vector<Patch> &patches) {
    std::vector<std::uint8_t> out(ulLen, 0);
    for (const Patch &p : patches) {
        std::memcpy(out.data() + p.ulOffset, p.bytes.data(), p.bytes.size());
    }
    return out;
}

std::vector<std::uint8_t> U16(std::uint16_t v) {
    std::vector<std::uint8_t> out(2);
    krm::Store16(out.data(), v);
    return out;
}

std::vector<std::uint8_t> U32(std::uint32_t v) {
    std::vector<std::uint8_t> out(4);
    krm::Store32(out.data(), v);
    return out;
}

KRM_SYSTIME_S Time(unsigned year, unsigned month, unsigned day, unsigned hour, unsigned minute,
                   unsigned second, unsigned millis) {
    KRM_SYSTIME_S t;
    std::memset(&t, 0, sizeof(t));
    t.usYear = static_cast<std::uint16_t>(year);
    t.ucMonth = static_cast<std::uint8_t>(month);
    t.ucDate = static_cast<std::uint8_t>(day);
    t.ucHour = static_cast<std::uint8_t>(hour);
    t.ucMinute = static_cast<std::uint8_t>(minute);
    t.ucSecond = static_cast<std::uint8_t>(second);
    t.ulMillSec = millis;
    return t;
}

std::uint32_t Epoch(unsigned year, unsigned month, unsigned day, unsigned hour, unsigned minute,
                    unsigned second) {
    // Days from 1970-01-01 by the civil-calendar count.
    const int y = static_cast<int>(year) - (month <= 2 ? 1 : 0);
    const int era = y / 400;
    const int yoe = y - era * 400;
    const int mp = (static_cast<int>(month) + 9) % 12;
    const int doy = (153 * mp + 2) / 5 + static_cast<int>(day) - 1;
    const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const long days = era * 146097L + doe - 719468L;
    return static_cast<std::uint32_t>(days * 86400L + hour * 3600L + minute * 60L + second);
}

void MetaTest::SetUp() {
    HostTest::SetUp();
    MBUF_STRUCT_INIT_S stPlain{0, 1};
    (void)MBUF_StructInit(&m_stPlain, sizeof(MBUF_S), &stPlain);
    MBUF_STRUCT_INIT_S stHdr{MBUF_PKTHDR, 1};
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
    return static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulType));
}

std::uint8_t *MetaTest::AddRecordBytes(MBUF_S *pstMbuf, std::uint32_t ulType,
                                       const std::vector<std::uint8_t> &bytes) {
    std::uint8_t *pucRec = AddRecord(pstMbuf, ulType, static_cast<std::uint32_t>(bytes.size()));
    if (pucRec != nullptr) {
        std::memcpy(pucRec, bytes.data(), bytes.size());
    }
    return pucRec;
}

void MetaTest::AddLinkTlvs(MBUF_S *pstMbuf, const std::vector<LinkTlv> &tlvs) {
    std::vector<std::uint8_t> list;
    for (const LinkTlv &t : tlvs) {
        const auto head = U16(t.usType);
        const auto len = U16(static_cast<std::uint16_t>(t.value.size()));
        list.insert(list.end(), head.begin(), head.end());
        list.insert(list.end(), len.begin(), len.end());
        list.insert(list.end(), t.value.begin(), t.value.end());
    }
    std::vector<std::uint8_t> rec = U16(0);
    const auto listLen = U16(static_cast<std::uint16_t>(list.size()));
    rec.insert(rec.end(), listLen.begin(), listLen.end());
    rec.insert(rec.end(), list.begin(), list.end());
    (void)AddRecordBytes(pstMbuf, MBUF_CTL_LINK, rec);
}

std::vector<std::uint8_t> MetaTest::CommBytes(MBUF_S *pstMbuf) {
    const auto *pucRec = static_cast<const std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, 0));
    if (pucRec == nullptr) {
        return {};
    }
    return std::vector<std::uint8_t>(pucRec, pucRec + MBUF_CTL_COMM_LEN);
}

}  // namespace krm::metatest
