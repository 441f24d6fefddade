// The chain operations protocol code runs per packet, with memcpy of the same
// bytes as the yardstick in the same run. Operations that change a packet
// are undone inside the loop so each iteration starts from the same shape:
// by hand where the undo is a few field writes, by the inverse operation
// where it is not (the pair is then what is measured). Operations that leave
// a different shape behind (contiguity, compaction) are measured with the
// packet built and destroyed in the loop; the Build benchmarks measure that
// part alone, to be subtracted.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "krm_mbuf/mbuf.h"

namespace {

constexpr uint32_t kModule = 0x00670000u;
constexpr uint32_t kHdrLen = 54;  // Ethernet + IPv4 + TCP
constexpr uint32_t kCopyLen = 1500;

// A packet of inline nodes holding the given lengths (the head up to 372,
// the others up to 848), with ulHeadRoom free bytes in front of the head's
// data; a node longer than its inline area gets a cluster.
MBUF_S *MakeChain(const std::vector<uint32_t> &lens, uint32_t ulHeadRoom = 0) {
    MBUF_S *head = nullptr;
    MBUF_S *prev = nullptr;
    uint32_t total = 0;
    for (std::size_t i = 0; i < lens.size(); ++i) {
        uint32_t capacity = 0;
        const uint32_t want = lens[i] + (i == 0 ? ulHeadRoom : 0);
        const uint32_t room = i == 0 ? MBUF_PKTHDR_INLINE_LEN : MBUF_PLAIN_INLINE_LEN;
        const uint32_t size = want <= room ? 0 : want;
        MBUF_S *node = i == 0 ? MBUF_AllocateMBufHeader_fl(size, 0, &capacity, kModule, "bench", 1)
                              : MBUF_AllocateMBufNode_fl(size, 0, &capacity, kModule, "bench", 2);
        if (node == nullptr) {
            MBUF_Destroy(head);
            return nullptr;
        }
        node->pucData += i == 0 ? ulHeadRoom : 0;
        node->ulDataLen = lens[i];
        std::memset(node->pucData, static_cast<int>(i + 1), lens[i]);
        total += lens[i];
        if (prev == nullptr) {
            head = node;
        } else {
            prev->pstNext = node;
        }
        prev = node;
    }
    head->ulTotalDataLen = total;
    return head;
}

void PrependIntoHeadRoom(benchmark::State &state) {
    MBUF_S *m = MakeChain({300}, 64);
    for (auto _ : state) {
        uint8_t *p = MBUF_PrependMemorySpace(m, kHdrLen, kModule);
        benchmark::DoNotOptimize(p);
        m->pucData += kHdrLen;
        m->ulDataLen -= kHdrLen;
        m->ulTotalDataLen -= kHdrLen;
    }
    MBUF_Destroy(m);
}
BENCHMARK(PrependIntoHeadRoom);

// Prepend into a new node and cut the header again: the cut releases the
// cluster and the emptied node, so both allocations happen every time.
void PrependIntoNewNodeAndCutHead(benchmark::State &state) {
    MBUF_S *m = MakeChain({372});
    for (auto _ : state) {
        uint8_t *p = MBUF_PrependMemorySpace(m, kHdrLen, kModule);
        benchmark::DoNotOptimize(p);
        (void)MBUF_CutHead(m, kHdrLen);
    }
    MBUF_Destroy(m);
}
BENCHMARK(PrependIntoNewNodeAndCutHead);

void Append(benchmark::State &state) {
    MBUF_S *m = MakeChain({100, 300});
    MBUF_S *last = m->pstNext;
    for (auto _ : state) {
        uint8_t *p = MBUF_AppendMemorySpace(m, kHdrLen, kModule);
        benchmark::DoNotOptimize(p);
        last->ulDataLen -= kHdrLen;
        m->ulTotalDataLen -= kHdrLen;
    }
    MBUF_Destroy(m);
}
BENCHMARK(Append);

void CutHead(benchmark::State &state) {
    MBUF_S *m = MakeChain({300, 500});
    for (auto _ : state) {
        (void)MBUF_CutHead(m, kHdrLen);
        m->pucData -= kHdrLen;
        m->ulDataLen += kHdrLen;
        m->ulTotalDataLen += kHdrLen;
    }
    MBUF_Destroy(m);
}
BENCHMARK(CutHead);

void CutTail(benchmark::State &state) {
    MBUF_S *m = MakeChain({300, 500});
    MBUF_S *last = m->pstNext;
    for (auto _ : state) {
        (void)MBUF_CutTail(m, kHdrLen);
        last->ulDataLen += kHdrLen;
        m->ulTotalDataLen += kHdrLen;
    }
    MBUF_Destroy(m);
}
BENCHMARK(CutTail);

// 1500 bytes out of a two-node packet: 372 inline in the head, 1128 in a
// cluster behind it.
void CopyOut1500(benchmark::State &state) {
    MBUF_S *m = MakeChain({372, 1128});
    std::vector<uint8_t> out(kCopyLen);
    for (auto _ : state) {
        const uint32_t rc = MBUF_CopyDataFromMBufToBuffer(m, 0, kCopyLen, out.data());
        benchmark::DoNotOptimize(rc);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kCopyLen);
    MBUF_Destroy(m);
}
BENCHMARK(CopyOut1500);

// The yardstick: 1500 bytes in one flat memcpy.
void Memcpy1500(benchmark::State &state) {
    std::vector<uint8_t> in(kCopyLen, 1);
    std::vector<uint8_t> out(kCopyLen);
    for (auto _ : state) {
        benchmark::DoNotOptimize(in.data());
        std::memcpy(out.data(), in.data(), kCopyLen);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kCopyLen);
}
BENCHMARK(Memcpy1500);

void RawCopy1500(benchmark::State &state) {
    MBUF_S *m = MakeChain({372, 1128});
    for (auto _ : state) {
        MBUF_S *copy = MBUF_RawCopy(m, 0, kCopyLen, 0, kModule);
        benchmark::DoNotOptimize(copy);
        MBUF_Destroy(copy);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kCopyLen);
    MBUF_Destroy(m);
}
BENCHMARK(RawCopy1500);

// Split a 1500-byte packet of inline nodes at 700 and join it back.
void SplitConcatenate(benchmark::State &state) {
    MBUF_S *m = MakeChain({372, 848, 280});
    for (auto _ : state) {
        MBUF_S *second = MBUF_Split(m, 700, kModule, nullptr);
        if (second == nullptr) {
            state.SkipWithError("split failed");
            break;
        }
        (void)MBUF_Concatenate(m, second);
    }
    MBUF_Destroy(m);
}
BENCHMARK(SplitConcatenate);

void BuildTwoNodes(benchmark::State &state) {
    for (auto _ : state) {
        MBUF_S *m = MakeChain({100, 100});
        benchmark::DoNotOptimize(m);
        MBUF_Destroy(m);
    }
}
BENCHMARK(BuildTwoNodes);

// 40 bytes straddling two inline nodes made contiguous (a new node).
void BuildTwoNodesMakeContinuous40(benchmark::State &state) {
    for (auto _ : state) {
        MBUF_S *m = MakeChain({100, 100});
        uint8_t *p = MBUF_MakeMemoryContinuous(m, 80, 40, kModule);
        benchmark::DoNotOptimize(p);
        MBUF_Destroy(m);
    }
}
BENCHMARK(BuildTwoNodesMakeContinuous40);

const std::vector<uint32_t> &NinetyOneNodes() {
    static const std::vector<uint32_t> lens(91, 220);
    return lens;
}

void Build91Nodes(benchmark::State &state) {
    for (auto _ : state) {
        MBUF_S *m = MakeChain(NinetyOneNodes());
        benchmark::DoNotOptimize(m);
        MBUF_Destroy(m);
    }
}
BENCHMARK(Build91Nodes);

void Build91NodesCompress(benchmark::State &state) {
    for (auto _ : state) {
        MBUF_S *m = MakeChain(NinetyOneNodes());
        const uint32_t rc = MBUF_Compress_fl(m, kModule, "bench", 3);
        benchmark::DoNotOptimize(rc);
        MBUF_Destroy(m);
    }
}
BENCHMARK(Build91NodesCompress);

}  // namespace
