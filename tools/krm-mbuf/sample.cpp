#include "sample.h"

#include <cstdio>

#include "internal/bytes.h"

namespace krm::tool {
namespace {

// Sizes cycling through one inline node, several nodes and external buffers.
constexpr std::uint32_t kSizes[] = {64, 300, 1400, 2900, 96, 5000, 1500, 777};
constexpr std::uint32_t kSampleRecords[] = {MBUF_CTL_IP, MBUF_CTL_PREVHOP};

void FillIpUdp(std::vector<std::uint8_t> &v, std::uint32_t ulIndex) {
    const auto ulLen = static_cast<std::uint32_t>(v.size());
    for (std::uint32_t i = 0; i < ulLen; ++i) {
        v[i] = static_cast<std::uint8_t>(i * 7 + ulIndex);
    }
    // IPv4 header: no options, UDP, 10.0.0.1 -> 10.0.0.2, checksum left 0.
    const std::uint8_t aucIp[20] = {0x45, 0, 0,  0, 0, 0, 0x40, 0, 64, 17,
                                    0,    0, 10, 0, 0, 1, 10,   0, 0,  2};
    std::copy(aucIp, aucIp + 20, v.begin());
    StoreBe16(&v[2], static_cast<std::uint16_t>(ulLen));
    StoreBe16(&v[4], static_cast<std::uint16_t>(ulIndex));
    StoreBe16(&v[20], 5000);
    StoreBe16(&v[22], static_cast<std::uint16_t>(6000 + ulIndex));
    StoreBe16(&v[24], static_cast<std::uint16_t>(ulLen - 20));
    StoreBe16(&v[26], 0);
}

bool AddRecords(MBUF_S *pstMbuf, std::uint32_t ulIndex) {
    (void)MBUF_SetReceiveIfIndex(pstMbuf, 10 + ulIndex);
    (void)MBUF_SetSendIfIndex(pstMbuf, 20 + ulIndex);
    (void)MBUF_SetPathId(pstMbuf, 0x1000 + ulIndex);
    (void)MBUF_SetSockId(pstMbuf, 0x2000 + ulIndex);
    (void)MBUF_SetVrfId(pstMbuf, 3);
    (void)MBUF_SetProtoType(pstMbuf, 0);
    MBUF_SetPktPriority(pstMbuf, ulIndex % 8);
    (void)MBUF_SetFlag(pstMbuf, 0x11);
    (void)MBUF_SetFlag2(pstMbuf, 0x80000001u | (ulIndex << 4));
    (void)MBUF_SetFlag3(pstMbuf, ulIndex % 32);
    for (const std::uint32_t ulType : kSampleRecords) {
        const std::uint32_t ulLen = g_ausMbufCtlLen[ulType];
        if (MBUF_CreateControlInfo(pstMbuf, ulType, ulLen, kToolModule) != MBUF_OK) {
            return false;
        }
        auto *puc = static_cast<std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, ulType));
        // Each aligned word holds four equal bytes: the record's fields then
        // read the same after the receiver converts them, whatever their
        // widths, so both ends can build the expected record alike.
        for (std::uint32_t i = 0; puc != nullptr && i < ulLen; ++i) {
            puc[i] = static_cast<std::uint8_t>(ulType * 16 + i / 4 + ulIndex);
        }
    }
    return true;
}

}  // namespace

void Stamp(MBUF_S *pstMbuf, std::uint32_t ulComp) {
    (void)MBUF_SetStackDebugInfo(pstMbuf, ulComp, kToolModule);
}

MBUF_S *MakeSample(std::uint32_t ulIndex) {
    std::vector<std::uint8_t> v(kSizes[ulIndex % (sizeof(kSizes) / sizeof(kSizes[0]))]);
    FillIpUdp(v, ulIndex);
    MBUF_S *pstMbuf =
        MBUF_CreateByCopyBuffer(64, static_cast<std::uint32_t>(v.size()), v.data(), 0, kToolModule);
    if (pstMbuf == nullptr) {
        return nullptr;
    }
    if (!AddRecords(pstMbuf, ulIndex)) {
        MBUF_Destroy(pstMbuf);
        return nullptr;
    }
    Stamp(pstMbuf, kCompSender);
    return pstMbuf;
}

Snapshot Snap(MBUF_S *pstMbuf) {
    Snapshot s;
    s.vData.resize(MBUF_GetTotalDataLength(pstMbuf));
    if (!s.vData.empty()) {
        MBUF_CopyDataFromMbufToCbuf(pstMbuf, 0, static_cast<std::int32_t>(s.vData.size()),
                                    s.vData.data());
    }
    s.ulFlag2 = MBUF_GetFlag2(pstMbuf);
    s.ulFlag3 = pstMbuf->ulFlag3;
    for (std::uint32_t t = 0; t < MBUF_CTL_TYPE_NUM; ++t) {
        const auto *puc = static_cast<const std::uint8_t *>(MBUF_GetControlInfo(pstMbuf, t));
        const std::uint32_t ulLen =
            t == MBUF_CTL_COMM ? MBUF_CTL_COMM_LEN : MBUF_GetControlLen(pstMbuf, t);
        if (puc != nullptr && t != MBUF_CTL_STACKDEBUG) {
            s.mRecords[t].assign(puc, puc + ulLen);
        }
    }
    MBUF_STACKDEBUG_ENTRY_S *pstEntries = nullptr;
    std::uint8_t ucCur = 0;
    if (MBUF_GetStackDebugAppTime(pstMbuf, &pstEntries, &ucCur) == 0 && pstEntries != nullptr) {
        for (std::uint32_t i = 0; i <= ucCur; ++i) {
            s.vStampComps.push_back(pstEntries[i].ulCompId);
        }
    }
    return s;
}

std::string Differs(const Snapshot &stWant, const Snapshot &stGot) {
    char ac[128];
    if (stWant.vData != stGot.vData) {
        std::size_t i = 0;
        while (i < stWant.vData.size() && i < stGot.vData.size() &&
               stWant.vData[i] == stGot.vData[i]) {
            ++i;
        }
        (void)std::snprintf(ac, sizeof(ac), "data differs at byte %zu (%zu vs %zu bytes)", i,
                            stWant.vData.size(), stGot.vData.size());
        return ac;
    }
    if (stWant.ulFlag2 != stGot.ulFlag2 || stWant.ulFlag3 != stGot.ulFlag3) {
        (void)std::snprintf(ac, sizeof(ac), "flag words 0x%08X/0x%08X, want 0x%08X/0x%08X",
                            stGot.ulFlag2, stGot.ulFlag3, stWant.ulFlag2, stWant.ulFlag3);
        return ac;
    }
    for (const auto &[t, v] : stWant.mRecords) {
        auto it = stGot.mRecords.find(t);
        if (it == stGot.mRecords.end() || it->second != v) {
            (void)std::snprintf(ac, sizeof(ac), "record %u %s", t,
                                it == stGot.mRecords.end() ? "missing" : "differs");
            return ac;
        }
    }
    if (stGot.mRecords.size() != stWant.mRecords.size()) {
        return "records beyond the ones sent";
    }
    if (stWant.vStampComps != stGot.vStampComps) {
        (void)std::snprintf(ac, sizeof(ac), "%zu stamps, want %zu", stGot.vStampComps.size(),
                            stWant.vStampComps.size());
        return ac;
    }
    return "";
}

}  // namespace krm::tool
