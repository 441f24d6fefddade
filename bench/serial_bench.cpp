// The serial forms: a 1500-byte packet with three control records written
// and read back as a serial image and as a TLV stream. Each is run next to
// its yardstick, a memcpy of as many bytes as the form holds, in the same
// run: what the form costs beyond moving its bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "krm_mbuf/mbuf.h"

namespace {

constexpr uint32_t kModule = 0x00650000u;
constexpr uint32_t kDataLen = 1500;

// 1500 data bytes, the common record with a socket id, and three records:
// IP information, previous hop and a time-stamp record.
MBUF_S *Packet(benchmark::State &state) {
    std::vector<uint8_t> data(kDataLen);
    for (uint32_t i = 0; i < kDataLen; ++i) {
        data[i] = static_cast<uint8_t>(i * 7u);
    }
    MBUF_S *pkt = MBUF_CreateByCopyBuffer(0, kDataLen, data.data(), 0, kModule);
    const uint32_t types[][2] = {
        {MBUF_CTL_IP, 20}, {MBUF_CTL_PREVHOP, 4}, {MBUF_CTL_TIMESTAMP, 40}};
    for (const auto &t : types) {
        if (pkt == nullptr || MBUF_CreateControlInfo(pkt, t[0], t[1], kModule) != 0) {
            state.SkipWithError("setup failed");
            return pkt;
        }
        std::memset(MBUF_GetControlInfo(pkt, t[0]), 0x5A, t[1]);
    }
    static_cast<MBUF_CTL_COMM_S *>(MBUF_GetControlInfo(pkt, MBUF_CTL_COMM))->ulSocketId = 7;
    return pkt;
}

void BM_SerializeDeserialize(benchmark::State &state) {
    MBUF_S *pkt = Packet(state);
    std::vector<uint8_t> img(MBUF_GetAllBlockSize(pkt));
    for (auto _ : state) {
        (void)MBUF_Serialize(pkt, img.data());
        MBUF_S *back = MBUF_Deserialize(img.data(), static_cast<uint32_t>(img.size()), kModule);
        benchmark::DoNotOptimize(back);
        MBUF_Destroy(back);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * img.size());
    MBUF_Destroy(pkt);
}
BENCHMARK(BM_SerializeDeserialize);

void BM_TlvWriteRead(benchmark::State &state) {
    MBUF_S *pkt = Packet(state);
    std::vector<uint8_t> buf(MBUF_CalcMbuf2TlvLen(pkt));
    uint16_t usLen = 0;
    for (auto _ : state) {
        (void)MBUF_TransMbuf2Tlv(pkt, buf.data(), static_cast<uint32_t>(buf.size()), kModule);
        std::memcpy(&usLen, buf.data() + 2, 2);
        MBUF_S *back = MBUF_TransTlv2Mbuf(buf.data(), usLen + 16u, kModule);
        benchmark::DoNotOptimize(back);
        MBUF_Destroy(back);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (usLen + 16));
    MBUF_Destroy(pkt);
}
BENCHMARK(BM_TlvWriteRead);

// Yardstick: the form's bytes copied out and back in, two memcpys.
void YardstickCopy(benchmark::State &state, std::size_t len) {
    std::vector<uint8_t> src(len, 0x11);
    std::vector<uint8_t> mid(len);
    std::vector<uint8_t> dst(len);
    for (auto _ : state) {
        std::memcpy(mid.data(), src.data(), len);
        benchmark::ClobberMemory();
        std::memcpy(dst.data(), mid.data(), len);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * len);
}

void BM_YardstickImageMemcpy(benchmark::State &state) {
    MBUF_S *pkt = Packet(state);
    const std::size_t len = MBUF_GetAllBlockSize(pkt);
    MBUF_Destroy(pkt);
    YardstickCopy(state, len);
}
BENCHMARK(BM_YardstickImageMemcpy);

void BM_YardstickTlvMemcpy(benchmark::State &state) {
    MBUF_S *pkt = Packet(state);
    std::vector<uint8_t> buf(MBUF_CalcMbuf2TlvLen(pkt));
    (void)MBUF_TransMbuf2Tlv(pkt, buf.data(), static_cast<uint32_t>(buf.size()), kModule);
    uint16_t usLen = 0;
    std::memcpy(&usLen, buf.data() + 2, 2);
    MBUF_Destroy(pkt);
    YardstickCopy(state, usLen + 16u);
}
BENCHMARK(BM_YardstickTlvMemcpy);

}  // namespace
