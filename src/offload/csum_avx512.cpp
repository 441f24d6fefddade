// The x86-64 summers for CPUs with AVX-512BW: the same biased multiply-add
// as the AVX2 path on 64-byte steps, and a run's last bytes taken by one
// masked load (the bytes past the run are neither read nor faulted on, and
// count as zero). Besides flat runs, a packet's chain is walked here node by
// node, so that finding the next node overlaps with summing this one.
// Chosen per call by the CPU's own flags.
#if defined(__x86_64__)
// The compiler's own AVX-512 intrinsics start from a deliberately undefined
// register, which its flow analysis reports as uninitialised; the report is
// about the header, not this code. Clang has no such analysis (nor the
// warning's name).
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif
#include <immintrin.h>

#include <algorithm>

#include "offload/csum_engine.h"
#include "offload/offload_internal.h"

namespace krm::offload {
namespace {

#define KRM_AVX512 __attribute__((target("avx512f,avx512bw")))

// A run is taken in pieces of at most this many steps, so that no 32-bit
// lane (moved by at most 65536 a step) leaves its range before the piece is
// widened; the piece length is even, so every piece keeps its run's parity.
constexpr std::uint32_t kPieceSteps = 16384;
constexpr std::uint32_t kStep = 64;
constexpr std::uint32_t kPieceLen = kPieceSteps * kStep;

KRM_AVX512 inline __m512i SumStep(__m512i acc, __m512i v) {
    const __m512i bias = _mm512_set1_epi16(static_cast<short>(0x8000));
    const __m512i ones = _mm512_set1_epi16(1);
    return _mm512_add_epi32(acc, _mm512_madd_epi16(_mm512_xor_si512(v, bias), ones));
}

// One piece summed into signed 32-bit lanes and widened into eight signed
// 64-bit lanes (both halves of each sign-extended), so that runs add up in
// registers and only the end reduces across lanes; with kCopy the piece is
// also stored at pucDst (the last bytes by a masked store, which writes
// nothing past the piece). *pulSteps gets the steps taken.
template <bool kCopy>
KRM_AVX512 inline __m512i SumPiece(std::uint8_t *pucDst, const std::uint8_t *p, std::uint32_t n,
                                   std::uint64_t *pulSteps) {
    __m512i a0 = _mm512_setzero_si512();
    __m512i a1 = _mm512_setzero_si512();
    std::uint32_t i = 0;
    for (; i + 2 * kStep <= n; i += 2 * kStep) {
        const __m512i v0 = _mm512_loadu_si512(p + i);
        const __m512i v1 = _mm512_loadu_si512(p + i + kStep);
        if constexpr (kCopy) {
            _mm512_storeu_si512(pucDst + i, v0);
            _mm512_storeu_si512(pucDst + i + kStep, v1);
        }
        a0 = SumStep(a0, v0);
        a1 = SumStep(a1, v1);
    }
    if (i + kStep <= n) {
        const __m512i v = _mm512_loadu_si512(p + i);
        if constexpr (kCopy) {
            _mm512_storeu_si512(pucDst + i, v);
        }
        a0 = SumStep(a0, v);
        i += kStep;
    }
    if (i < n) {
        const __mmask64 mask = (std::uint64_t{1} << (n - i)) - 1;
        const __m512i v = _mm512_maskz_loadu_epi8(mask, p + i);
        if constexpr (kCopy) {
            _mm512_mask_storeu_epi8(pucDst + i, mask, v);
        }
        a1 = SumStep(a1, v);
    }
    *pulSteps += (std::uint64_t{n} + kStep - 1) / kStep;
    const __m512i a = _mm512_add_epi32(a0, a1);
    return _mm512_add_epi64(_mm512_srai_epi64(_mm512_slli_epi64(a, 32), 32),
                            _mm512_srai_epi64(a, 32));
}

// A run that starts at an odd stream position pairs its bytes the other way
// round, and swapping the bytes of a 16-bit one's-complement sum is
// multiplying it by 256 (2^16 is 1 here): so its lanes, and their bias, are
// shifted by 8 bits and every run shares one accumulator.
struct WideAcc {
    __m512i acc;
    std::uint64_t ulBias;
};

// Adds a run (copied to pucDst with kCopy) in pieces short enough for the
// 32-bit lanes; every piece but the last has an even length, so all keep
// the run's parity.
template <bool kCopy>
KRM_AVX512 inline void AddRunTo(WideAcc *pstAcc, std::uint8_t *pucDst, const std::uint8_t *pucSrc,
                                std::uint32_t ulLen, bool bOddStart) {
    const unsigned uiShift = bOddStart ? 8 : 0;
    for (std::uint32_t ulAt = 0; ulAt < ulLen; ulAt += kPieceLen) {
        const std::uint32_t n = std::min(ulLen - ulAt, kPieceLen);
        std::uint64_t ulSteps = 0;
        const __m512i piece =
            SumPiece<kCopy>(kCopy ? pucDst + ulAt : nullptr, pucSrc + ulAt, n, &ulSteps);
        pstAcc->acc = _mm512_add_epi64(pstAcc->acc, _mm512_slli_epi64(piece, uiShift));
        pstAcc->ulBias += ulSteps << uiShift;
    }
}

// The big-endian folded sum: lanes added up and unbiased (each of the 16
// 32-bit lanes carried -65536 per step).
KRM_AVX512 inline std::uint32_t Finish(const WideAcc &stAcc) {
    const std::int64_t sum =
        _mm512_reduce_add_epi64(stAcc.acc) + static_cast<std::int64_t>(stAcc.ulBias * 16 * 65536);
    return NativeToBe(Fold16(static_cast<std::uint64_t>(sum)));
}

KRM_AVX512 std::uint32_t RunsAvx512(const Run *pstRuns, std::size_t ulCount) {
    WideAcc stAcc{_mm512_setzero_si512(), 0};
    for (std::size_t r = 0; r < ulCount; ++r) {
        AddRunTo<false>(&stAcc, nullptr, pstRuns[r].pucData, pstRuns[r].ulLen,
                        pstRuns[r].bOddStart);
    }
    return Finish(stAcc);
}

// The chain walk of SumChain and CopySumChain (same nodes, same runs, same
// bytes missing), summing each run as it is found.
template <bool kCopy>
KRM_AVX512 ChainSum ChainAvx512(const MBUF_S *pstNode, std::uint32_t ulOffset, std::uint32_t ulLen,
                                std::uint8_t *pucDst) {
    while (pstNode != nullptr && pstNode->ulDataLen <= ulOffset) {
        ulOffset -= pstNode->ulDataLen;
        pstNode = pstNode->pstNext;
    }
    WideAcc stAcc{_mm512_setzero_si512(), 0};
    std::uint32_t ulPos = 0;
    for (const MBUF_S *n = pstNode; n != nullptr && ulPos < ulLen; n = n->pstNext) {
        if (n->ulDataLen <= ulOffset) {
            continue;  // an empty node behind the first
        }
        const std::uint32_t ulRun = std::min(n->ulDataLen - ulOffset, ulLen - ulPos);
        AddRunTo<kCopy>(&stAcc, kCopy ? pucDst + ulPos : nullptr, n->pucData + ulOffset, ulRun,
                        (ulPos & 1u) != 0);
        ulPos += ulRun;
        ulOffset = 0;
    }
    return ChainSum{Finish(stAcc), ulLen - ulPos};
}

}  // namespace

bool SumRunsAvx512(const Run *pstRuns, std::size_t ulCount, std::uint32_t *pulSum) {
    if (!__builtin_cpu_supports("avx512bw")) {
        return false;
    }
    *pulSum = RunsAvx512(pstRuns, ulCount);
    return true;
}

bool SumChainWide(const MBUF_S *pstMbuf, std::uint32_t ulOffset, std::uint32_t ulLen,
                  ChainSum *pstSum) {
    if (!__builtin_cpu_supports("avx512bw")) {
        return false;
    }
    *pstSum = ChainAvx512<false>(pstMbuf, ulOffset, ulLen, nullptr);
    return true;
}

bool CopySumChainWide(const MBUF_S *pstMbuf, std::uint32_t ulOffset, std::uint32_t ulLen,
                      std::uint8_t *pucDst, ChainSum *pstSum) {
    if (!__builtin_cpu_supports("avx512bw")) {
        return false;
    }
    *pstSum = ChainAvx512<true>(pstMbuf, ulOffset, ulLen, pucDst);
    return true;
}

}  // namespace krm::offload
#endif
