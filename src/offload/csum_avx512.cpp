// The x86-64 run summer for CPUs with AVX-512BW: the same biased
// multiply-add as the AVX2 path on 64-byte steps, and a run's last bytes
// taken by one masked load (the bytes past the run are neither read nor
// faulted on, and count as zero). Chosen per call by the CPU's own flags.
#if defined(__x86_64__)
// The compiler's own AVX-512 intrinsics start from a deliberately undefined
// register, which its flow analysis reports as uninitialised; the report is
// about the header, not this code. Clang has no such analysis (nor the
// warning's name).
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include <algorithm>

#include "offload/csum_engine.h"

namespace krm::offload {
namespace {

#define KRM_AVX512 __attribute__((target("avx512f,avx512bw")))

// Steps between widenings: a lane moves by at most 65536 a step.
constexpr std::uint32_t kStepsPerBlock = 16384;
constexpr std::uint32_t kStep = 64;

KRM_AVX512 inline __m512i SumStep(__m512i acc, __m512i v) {
    const __m512i bias = _mm512_set1_epi16(static_cast<short>(0x8000));
    const __m512i ones = _mm512_set1_epi16(1);
    return _mm512_add_epi32(acc, _mm512_madd_epi16(_mm512_xor_si512(v, bias), ones));
}

KRM_AVX512 inline std::int64_t Widen(__m512i acc) {
    // Each 64-bit lane holds two signed 32-bit sums: sign-extend both halves.
    const __m512i lo = _mm512_srai_epi64(_mm512_slli_epi64(acc, 32), 32);
    const __m512i hi = _mm512_srai_epi64(acc, 32);
    return _mm512_reduce_add_epi64(_mm512_add_epi64(lo, hi));
}

// A whole run into one accumulator; returns the steps taken, the masked
// last one included.
KRM_AVX512 inline std::uint64_t RunSteps(__m512i *acc, const std::uint8_t *p, std::uint32_t n) {
    std::uint32_t i = 0;
    __m512i a0 = *acc;
    __m512i a1 = _mm512_setzero_si512();
    for (; i + 2 * kStep <= n; i += 2 * kStep) {
        a0 = SumStep(a0, _mm512_loadu_si512(p + i));
        a1 = SumStep(a1, _mm512_loadu_si512(p + i + kStep));
    }
    if (i + kStep <= n) {
        a0 = SumStep(a0, _mm512_loadu_si512(p + i));
        i += kStep;
    }
    std::uint64_t steps = n / kStep;
    if (i < n) {
        const __mmask64 mask = (std::uint64_t{1} << (n - i)) - 1;
        a1 = SumStep(a1, _mm512_maskz_loadu_epi8(mask, p + i));
        ++steps;
    }
    *acc = _mm512_add_epi32(a0, a1);
    return steps;
}

// Widened and unbiased: each of the 16 lanes carried -65536 per step.
KRM_AVX512 inline std::uint32_t FoldAcc(std::uint32_t ulFolded, __m512i acc,
                                        std::uint64_t ulSteps) {
    const std::int64_t sum = Widen(acc) + static_cast<std::int64_t>(ulSteps) * 16 * 65536;
    return Fold16(std::uint64_t{ulFolded} + static_cast<std::uint64_t>(sum));
}

KRM_AVX512 std::uint32_t RunsAvx512(const Run *pstRuns, std::size_t ulCount) {
    __m512i acc[2] = {_mm512_setzero_si512(), _mm512_setzero_si512()};
    std::uint64_t pending[2] = {0, 0};
    std::uint32_t ulFolded[2] = {0, 0};
    for (std::size_t r = 0, ulAt = 0; r < ulCount;) {
        // Long runs go in pieces of an even length (parity holds).
        const std::uint32_t ulPiece = std::min<std::uint32_t>(
            pstRuns[r].ulLen - static_cast<std::uint32_t>(ulAt), kStepsPerBlock / 2 * kStep);
        const int k = pstRuns[r].bOddStart ? 1 : 0;
        pending[k] += RunSteps(&acc[k], pstRuns[r].pucData + ulAt, ulPiece);
        ulAt += ulPiece;
        if (ulAt == pstRuns[r].ulLen) {
            ++r;
            ulAt = 0;
        }
        if (pending[k] >= kStepsPerBlock) {
            ulFolded[k] = FoldAcc(ulFolded[k], acc[k], pending[k]);
            acc[k] = _mm512_setzero_si512();
            pending[k] = 0;
        }
    }
    for (int k = 0; k < 2; ++k) {
        if (pending[k] != 0) {
            ulFolded[k] = FoldAcc(ulFolded[k], acc[k], pending[k]);
        }
    }
    return AddRun(NativeToBe(ulFolded[0]), NativeToBe(ulFolded[1]), true);
}

}  // namespace

bool SumRunsAvx512(const Run *pstRuns, std::size_t ulCount, std::uint32_t *pulSum) {
    if (!__builtin_cpu_supports("avx512bw")) {
        return false;
    }
    *pulSum = RunsAvx512(pstRuns, ulCount);
    return true;
}

}  // namespace krm::offload
#endif
