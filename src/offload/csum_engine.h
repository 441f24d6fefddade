// The summing engine under every checksum: the one's-complement sum of a
// flat run of bytes read as big-endian 16-bit words, optionally while
// copying them. The sum is associative and commutative, so the engine reads
// native words as wide as the machine allows and corrects the byte order
// once at the end; a run that starts at an odd position of a longer stream
// is summed as if even and swapped when it is combined.
#pragma once

#include <cstddef>
#include <cstdint>

namespace krm::offload {

// Folds a wide sum to 16 bits with end-around carry. A non-zero sum never
// folds to 0, so "all bytes zero" stays distinguishable.
inline std::uint32_t Fold16(std::uint64_t ullSum) {
    while ((ullSum >> 16) != 0) {
        ullSum = (ullSum & 0xFFFFu) + (ullSum >> 16);
    }
    return static_cast<std::uint32_t>(ullSum);
}

// A folded 16-bit sum of a run that began at an odd stream position, as
// the stream sees it: its bytes pair the other way round.
inline std::uint32_t SwapSum(std::uint32_t ulSum) {
    return ((ulSum << 8) | (ulSum >> 8)) & 0xFFFFu;
}

// Adds a run's folded sum to a folded running sum; bOddStart when the run
// began at an odd position of the stream.
inline std::uint32_t AddRun(std::uint32_t ulAcc, std::uint32_t ulRun, bool bOddStart) {
    return Fold16(std::uint64_t{ulAcc} + (bOddStart ? SwapSum(ulRun) : ulRun));
}

// Folded sum of ulLen bytes at pucData, big-endian words, an odd last byte
// the high byte of a zero-padded word.
std::uint32_t SumBytes(const std::uint8_t *pucData, std::size_t ulLen);

// Copies ulLen bytes from pucSrc to pucDst (not overlapping) and returns the
// folded sum of them, as SumBytes would.
std::uint32_t CopyAndSum(std::uint8_t *pucDst, const std::uint8_t *pucSrc, std::size_t ulLen);

// The same two without the machine-specific bulk, so that the portable
// loop can be checked on a machine that has a wider one.
std::uint32_t SumBytesPortable(const std::uint8_t *pucData, std::size_t ulLen);
std::uint32_t CopyAndSumPortable(std::uint8_t *pucDst, const std::uint8_t *pucSrc,
                                 std::size_t ulLen);

// A folded sum of native 16-bit words turned into the big-endian sum.
std::uint32_t NativeToBe(std::uint64_t ullNative);

// One run of a longer stream: its bytes and whether it starts at an odd
// position of the stream.
struct Run {
    const std::uint8_t *pucData;
    std::uint32_t ulLen;
    bool bOddStart;
};

// Folded sum of the stream the runs make up, as SumBytes of their
// concatenation would give. Runs are summed into two wide accumulators
// (even and odd starts) that are folded once, so that a short chain of
// several nodes costs little more than its bytes.
std::uint32_t SumRuns(const Run *pstRuns, std::size_t ulCount);
std::uint32_t SumRunsPortable(const Run *pstRuns, std::size_t ulCount);

// The x86-64 run summers by name, so that each can be checked on a machine
// that has it; false where the CPU lacks it, and on every other machine.
bool SumRunsAvx2(const Run *pstRuns, std::size_t ulCount, std::uint32_t *pulSum);
bool SumRunsAvx512(const Run *pstRuns, std::size_t ulCount, std::uint32_t *pulSum);

// The machine-specific run summer (the widest the CPU has); false when this
// machine has none.
bool SumRunsWide(const Run *pstRuns, std::size_t ulCount, std::uint32_t *pulSum);

// The machine-specific bulk: sums (and copies) the first ulLen & ~31 bytes
// as native 16-bit words; returns false when this machine has no such path,
// leaving the work to the portable loop. *pulDone gets the bytes taken.
bool SumBulkWide(const std::uint8_t *pucData, std::size_t ulLen, std::uint64_t *pullSum,
                 std::size_t *pulDone);
bool CopySumBulkWide(std::uint8_t *pucDst, const std::uint8_t *pucSrc, std::size_t ulLen,
                     std::uint64_t *pullSum, std::size_t *pulDone);

}  // namespace krm::offload
