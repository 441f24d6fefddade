// The portable summing loop and the byte-order correction shared by every
// path. Native words are summed in a 64-bit accumulator (32-bit words, so
// no carry is ever lost); on a little-endian build the folded result is the
// byte-swapped big-endian sum, which one swap puts right.
#include "offload/csum_engine.h"
#include "offload/offload_internal.h"

#include <cstring>

namespace krm::offload {
namespace {

constexpr std::size_t kWideFrom = 256;
// Runs shorter than this (headers) take the short loop.
constexpr std::size_t kShortTo = 128;

inline std::uint32_t LoadNative32(const std::uint8_t *p) {
    std::uint32_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

// Native 32-bit words of ulLen & ~15 bytes, four accumulators for the
// pipelines; returns the bytes taken.
std::size_t SumNativePortable(const std::uint8_t *p, std::size_t ulLen, std::uint64_t *pullSum) {
    std::uint64_t a = 0;
    std::uint64_t b = 0;
    std::uint64_t c = 0;
    std::uint64_t d = 0;
    std::size_t i = 0;
    for (; i + 16 <= ulLen; i += 16) {
        a += LoadNative32(p + i);
        b += LoadNative32(p + i + 4);
        c += LoadNative32(p + i + 8);
        d += LoadNative32(p + i + 12);
    }
    *pullSum += a + b + c + d;
    return i;
}

}  // namespace

// Native sum folded and turned into the big-endian sum.
std::uint32_t NativeToBe(std::uint64_t ullNative) {
    const std::uint32_t ulFolded = Fold16(ullNative);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return SwapSum(ulFolded);
#else
    return ulFolded;
#endif
}

namespace {

// The last few bytes, word by word in network order.
std::uint32_t SumTail(const std::uint8_t *p, std::size_t ulLen) {
    std::uint32_t ulSum = 0;
    std::size_t i = 0;
    for (; i + 2 <= ulLen; i += 2) {
        ulSum += (std::uint32_t{p[i]} << 8) | p[i + 1];
    }
    if (i < ulLen) {
        ulSum += std::uint32_t{p[i]} << 8;
    }
    return ulSum;
}

// Adds a native word with end-around carry: 2^64 is 1 to a 16-bit
// one's-complement sum, so a 64-bit accumulator loses nothing.
inline void AddCarry(std::uint64_t *pullAcc, std::uint64_t ullWord) {
    *pullAcc += ullWord;
    *pullAcc += *pullAcc < ullWord ? 1u : 0u;
}

// A short run (headers): native 64-bit words, then 4, 2 and 1 byte, none
// read past the run. A last odd byte is the first byte of its native word.
std::uint32_t SumShort(const std::uint8_t *p, std::size_t ulLen) {
    std::uint64_t ullAcc = 0;
    std::size_t i = 0;
    for (; i + 8 <= ulLen; i += 8) {
        std::uint64_t w;
        std::memcpy(&w, p + i, sizeof(w));
        AddCarry(&ullAcc, w);
    }
    if (i + 4 <= ulLen) {
        AddCarry(&ullAcc, LoadNative32(p + i));
        i += 4;
    }
    if (i + 2 <= ulLen) {
        std::uint16_t w;
        std::memcpy(&w, p + i, sizeof(w));
        AddCarry(&ullAcc, w);
        i += 2;
    }
    if (i < ulLen) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        AddCarry(&ullAcc, p[i]);
#else
        AddCarry(&ullAcc, std::uint64_t{p[i]} << 8);
#endif
    }
    return NativeToBe((ullAcc & 0xFFFFFFFFu) + (ullAcc >> 32));
}

std::uint32_t Sum(const std::uint8_t *pucData, std::size_t ulLen, bool bWide) {
    if (ulLen < kShortTo) {
        return SumShort(pucData, ulLen);
    }
    std::uint64_t ullNative = 0;
    std::size_t ulDone = 0;
    // Headers and other short runs cost less in the portable loop than the
    // wide path's setting up and widening.
    if (!bWide || ulLen < kWideFrom || !SumBulkWide(pucData, ulLen, &ullNative, &ulDone)) {
        ulDone = 0;
    }
    ulDone += SumNativePortable(pucData + ulDone, ulLen - ulDone, &ullNative);
    // Every bulk path takes an even count, so the tail starts on a word.
    return Fold16(std::uint64_t{NativeToBe(ullNative)} + SumTail(pucData + ulDone, ulLen - ulDone));
}

std::uint32_t CopySum(std::uint8_t *pucDst, const std::uint8_t *pucSrc, std::size_t ulLen,
                      bool bWide) {
    std::uint64_t ullNative = 0;
    std::size_t ulDone = 0;
    if (bWide && CopySumBulkWide(pucDst, pucSrc, ulLen, &ullNative, &ulDone)) {
        const std::size_t ulRest = ulLen - ulDone;
        std::memcpy(pucDst + ulDone, pucSrc + ulDone, ulRest);
        return AddRun(NativeToBe(ullNative), Sum(pucDst + ulDone, ulRest, false), false);
    }
    // Without a wide path the copy is the C library's and the sum reads the
    // copy while it is still in the cache.
    std::memcpy(pucDst, pucSrc, ulLen);
    return Sum(pucDst, ulLen, bWide);
}

}  // namespace

std::uint32_t SumRunsPortable(const Run *pstRuns, std::size_t ulCount) {
    std::uint32_t ulSum = 0;
    for (std::size_t i = 0; i < ulCount; ++i) {
        ulSum =
            AddRun(ulSum, Sum(pstRuns[i].pucData, pstRuns[i].ulLen, false), pstRuns[i].bOddStart);
    }
    return ulSum;
}

std::uint32_t SumRuns(const Run *pstRuns, std::size_t ulCount) {
    std::uint32_t ulSum = 0;
    return SumRunsWide(pstRuns, ulCount, &ulSum) ? ulSum : SumRunsPortable(pstRuns, ulCount);
}

std::uint32_t SumBytes(const std::uint8_t *pucData, std::size_t ulLen) {
    return Sum(pucData, ulLen, true);
}
std::uint32_t SumBytesPortable(const std::uint8_t *pucData, std::size_t ulLen) {
    return Sum(pucData, ulLen, false);
}
std::uint32_t CopyAndSum(std::uint8_t *pucDst, const std::uint8_t *pucSrc, std::size_t ulLen) {
    return CopySum(pucDst, pucSrc, ulLen, true);
}
std::uint32_t CopyAndSumPortable(std::uint8_t *pucDst, const std::uint8_t *pucSrc,
                                 std::size_t ulLen) {
    return CopySum(pucDst, pucSrc, ulLen, false);
}

#if !defined(__x86_64__)
bool SumRunsAvx2(const Run *, std::size_t, std::uint32_t *) {
    return false;
}
bool SumRunsAvx512(const Run *, std::size_t, std::uint32_t *) {
    return false;
}
bool SumRunsWide(const Run *, std::size_t, std::uint32_t *) {
    return false;
}
bool SumBulkWide(const std::uint8_t *, std::size_t, std::uint64_t *, std::size_t *) {
    return false;
}
bool CopySumBulkWide(std::uint8_t *, const std::uint8_t *, std::size_t, std::uint64_t *,
                     std::size_t *) {
    return false;
}
bool SumChainWide(const MBUF_S *, std::uint32_t, std::uint32_t, ChainSum *) {
    return false;
}
bool CopySumChainWide(const MBUF_S *, std::uint32_t, std::uint32_t, std::uint8_t *, ChainSum *) {
    return false;
}
#endif

}  // namespace krm::offload
