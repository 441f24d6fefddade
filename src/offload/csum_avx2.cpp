// The x86-64 bulk path, chosen per call by the CPU's own feature flags (no
// state of ours): 32 bytes a step with AVX2. Each 16-bit lane is biased by
// 0x8000 so that the signed multiply-add of adjacent lanes by 1 sums them
// into 32-bit lanes without losing a bit; the bias (65536 per 32-bit lane
// and step) is added back once at the end.
#if defined(__x86_64__)
#include <immintrin.h>

#include <algorithm>

#include "offload/csum_engine.h"

namespace krm::offload {
namespace {

// Steps between two widenings of the 32-bit lanes: each lane moves by at
// most 65536 a step, so 16384 steps stay far inside 32 bits.
constexpr std::size_t kStepsPerBlock = 16384;

__attribute__((target("avx2"))) inline __m256i SumStep(__m256i acc, __m256i v) {
    const __m256i bias = _mm256_set1_epi16(static_cast<short>(0x8000));
    const __m256i ones = _mm256_set1_epi16(1);
    return _mm256_add_epi32(acc, _mm256_madd_epi16(_mm256_xor_si256(v, bias), ones));
}

// The eight signed 32-bit lanes added up in 64 bits, without a trip
// through memory.
__attribute__((target("avx2"))) inline std::int64_t Widen(__m256i acc) {
    const __m256i lo = _mm256_cvtepi32_epi64(_mm256_castsi256_si128(acc));
    const __m256i hi = _mm256_cvtepi32_epi64(_mm256_extracti128_si256(acc, 1));
    const __m256i s = _mm256_add_epi64(lo, hi);
    const __m128i t = _mm_add_epi64(_mm256_castsi256_si128(s), _mm256_extracti128_si256(s, 1));
    return _mm_cvtsi128_si64(t) + _mm_extract_epi64(t, 1);
}

// Sums (and with pucDst copies) ulSteps steps of 32 bytes; the signed lane
// sum is returned with its bias already added back.
template <bool kCopy>
__attribute__((target("avx2"))) std::uint64_t Block(std::uint8_t *pucDst,
                                                    const std::uint8_t *pucSrc,
                                                    std::size_t ulSteps) {
    __m256i a0 = _mm256_setzero_si256();
    __m256i a1 = _mm256_setzero_si256();
    std::size_t i = 0;
    for (; i + 2 <= ulSteps; i += 2) {
        const auto *s = reinterpret_cast<const __m256i *>(pucSrc + i * 32);
        const __m256i v0 = _mm256_loadu_si256(s);
        const __m256i v1 = _mm256_loadu_si256(s + 1);
        if constexpr (kCopy) {
            auto *d = reinterpret_cast<__m256i *>(pucDst + i * 32);
            _mm256_storeu_si256(d, v0);
            _mm256_storeu_si256(d + 1, v1);
        }
        a0 = SumStep(a0, v0);
        a1 = SumStep(a1, v1);
    }
    if (i < ulSteps) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(pucSrc + i * 32));
        if constexpr (kCopy) {
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(pucDst + i * 32), v);
        }
        a0 = SumStep(a0, v);
    }
    // Each of the 8 lanes carried a bias of -65536 per step.
    const std::int64_t sum = Widen(a0) + Widen(a1) + static_cast<std::int64_t>(ulSteps) * 8 * 65536;
    return static_cast<std::uint64_t>(sum);
}

template <bool kCopy>
bool Bulk(std::uint8_t *pucDst, const std::uint8_t *pucSrc, std::size_t ulLen,
          std::uint64_t *pullSum, std::size_t *pulDone) {
    if (!__builtin_cpu_supports("avx2")) {
        return false;
    }
    const std::size_t ulSteps = ulLen / 32;
    std::size_t ulDone = 0;
    while (ulDone < ulSteps) {
        const std::size_t n =
            (ulSteps - ulDone < kStepsPerBlock) ? ulSteps - ulDone : kStepsPerBlock;
        *pullSum += Block<kCopy>(pucDst == nullptr ? nullptr : pucDst + ulDone * 32,
                                 pucSrc + ulDone * 32, n);
        ulDone += n;
    }
    *pulDone = ulSteps * 32;
    return true;
}

// A whole run into one accumulator: 32-byte steps on two alternating
// registers, then the last few bytes into a scalar native sum (a byte at an
// even offset is the low half of its native word on this little-endian
// machine). Returns the steps taken.
__attribute__((target("avx2"))) inline std::uint64_t RunSteps(__m256i *acc, std::uint64_t *pullTail,
                                                              const std::uint8_t *p,
                                                              std::uint32_t n) {
    std::uint32_t i = 0;
    __m256i a0 = *acc;
    __m256i a1 = _mm256_setzero_si256();
    for (; i + 64 <= n; i += 64) {
        a0 = SumStep(a0, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p + i)));
        a1 = SumStep(a1, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p + i + 32)));
    }
    if (i + 32 <= n) {
        a0 = SumStep(a0, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p + i)));
        i += 32;
    }
    *acc = _mm256_add_epi32(a0, a1);
    std::uint64_t ullTail = *pullTail;
    for (; i + 4 <= n; i += 4) {
        std::uint32_t w;
        __builtin_memcpy(&w, p + i, 4);
        ullTail += w;
    }
    for (; i < n; ++i) {
        ullTail += (i & 1u) != 0 ? std::uint64_t{p[i]} << 8 : p[i];
    }
    *pullTail = ullTail;
    return n / 32;
}

__attribute__((target("avx2"))) std::uint32_t RunsAvx2(const Run *pstRuns, std::size_t ulCount) {
    __m256i acc[2] = {_mm256_setzero_si256(), _mm256_setzero_si256()};
    std::uint64_t steps[2] = {0, 0};
    std::uint64_t tails[2] = {0, 0};
    std::uint32_t ulDone[2] = {0, 0};
    std::uint32_t ulFolded[2] = {0, 0};
    for (std::size_t r = 0, ulAt = 0; r < ulCount;) {
        // A long run goes in pieces of an even length (its parity holds) so
        // that no lane runs more than kStepsPerBlock / 2 steps unwidened.
        const std::uint32_t ulPiece = std::min<std::uint32_t>(
            pstRuns[r].ulLen - static_cast<std::uint32_t>(ulAt), kStepsPerBlock / 2 * 32);
        const int k = pstRuns[r].bOddStart ? 1 : 0;
        steps[k] += RunSteps(&acc[k], &tails[k], pstRuns[r].pucData + ulAt, ulPiece);
        ulAt += ulPiece;
        if (ulAt == pstRuns[r].ulLen) {
            ++r;
            ulAt = 0;
        }
        // Widen before a lane could leave 32 bits.
        if (steps[k] - ulDone[k] >= kStepsPerBlock) {
            ulFolded[k] = Fold16(
                std::uint64_t{ulFolded[k]} +
                static_cast<std::uint64_t>(
                    Widen(acc[k]) + static_cast<std::int64_t>(steps[k] - ulDone[k]) * 8 * 65536));
            acc[k] = _mm256_setzero_si256();
            ulDone[k] = static_cast<std::uint32_t>(steps[k]);
        }
    }
    for (int k = 0; k < 2; ++k) {
        if (steps[k] == ulDone[k] && tails[k] == 0) {
            continue;  // nothing summed here since the last widening
        }
        ulFolded[k] = Fold16(
            std::uint64_t{ulFolded[k]} + Fold16(tails[k]) +
            static_cast<std::uint64_t>(
                Widen(acc[k]) + static_cast<std::int64_t>(steps[k] - ulDone[k]) * 8 * 65536));
    }
    return AddRun(NativeToBe(ulFolded[0]), NativeToBe(ulFolded[1]), true);
}

}  // namespace

bool SumRunsAvx2(const Run *pstRuns, std::size_t ulCount, std::uint32_t *pulSum) {
    if (!__builtin_cpu_supports("avx2")) {
        return false;
    }
    *pulSum = RunsAvx2(pstRuns, ulCount);
    return true;
}

bool SumRunsWide(const Run *pstRuns, std::size_t ulCount, std::uint32_t *pulSum) {
    return SumRunsAvx512(pstRuns, ulCount, pulSum) || SumRunsAvx2(pstRuns, ulCount, pulSum);
}

bool SumBulkWide(const std::uint8_t *pucData, std::size_t ulLen, std::uint64_t *pullSum,
                 std::size_t *pulDone) {
    return Bulk<false>(nullptr, pucData, ulLen, pullSum, pulDone);
}

bool CopySumBulkWide(std::uint8_t *pucDst, const std::uint8_t *pucSrc, std::size_t ulLen,
                     std::uint64_t *pullSum, std::size_t *pulDone) {
    return Bulk<true>(pucDst, pucSrc, ulLen, pullSum, pulDone);
}

}  // namespace krm::offload
#endif
