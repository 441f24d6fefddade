// Shared ground of the protocol-interaction log tests: a fixture that owns
// the contexts and packets it hands out and drives the tick counter by hand
// (one tick a millisecond, so the 75-second window is 75000 ticks), packets
// stamped with a session identity, and a model of the log written from the
// rules, against which the library's sessions are compared byte for byte.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host_test.h"
#include "krm_host/host.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::protointtest {

using krm::test::AssertReport;
using krm::test::Report;
using krm::test::Reports;

inline constexpr std::uint32_t kMid = 0x00650000u;
inline constexpr std::uint32_t kCompArg = 0x00780000u;
inline constexpr std::uint64_t kWindow = 75000;
inline constexpr std::uint64_t kStartTick = 10000000;
inline constexpr const char *kMod = "krm_mbuf_proto_int";

// The stamp as it lies in the stack-debug record.
inline constexpr std::uint32_t kFlagOff = 8;
inline constexpr std::uint32_t kSessOff = 12;
inline constexpr std::uint32_t kSeqOff = 16;

std::uint32_t RecWord(MBUF_S *pstMbuf, std::uint32_t ulOff);
void SetRecWord(MBUF_S *pstMbuf, std::uint32_t ulOff, std::uint32_t ulValue);

class ProtoIntTest : public krm::test::HostTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // A context the fixture tears down; kept NULL-free by asserting.
    MBUF_PROTOINT_CTX_S *NewCtx(std::uint32_t ulLockMode);
    // Tears down a context now (and forgets it).
    void DropCtx(MBUF_PROTOINT_CTX_S *pstCtx);
    // A packet of ulLen bytes the fixture destroys.
    MBUF_S *Packet(std::uint32_t ulLen);
    // A packet stamped for session ulSessId through CreateIdInfo, its
    // sequence number and colour set.
    MBUF_S *Stamped(MBUF_PROTOINT_CTX_S *pstCtx, std::uint32_t ulSessId, std::uint32_t ulLen,
                    std::uint32_t ulSeq, bool bGreen = false);
    // Records a freshly stamped packet of kind ulKind; the recording's result.
    std::uint32_t Record(MBUF_PROTOINT_CTX_S *pstCtx, std::uint32_t ulSessId, std::uint32_t ulKind,
                         std::uint32_t ulLen, std::uint32_t ulSeq, bool bGreen = false);
    void Advance(std::uint64_t ullTicks);
    std::uint64_t Now() const { return tick_; }

  private:
    std::vector<MBUF_PROTOINT_CTX_S *> ctxs_;
    std::vector<MBUF_S *> packets_;
    std::uint64_t tick_ = kStartTick;
};

// The session as the model keeps it (the library's own layout, filled from
// the rules), and what one recording should give.
struct Outcome {
    std::uint32_t result = 0;
    std::uint32_t sessOut = 0;
    std::uint32_t seqAfter = 0;  // the packet's sequence number afterwards
};

class LogModel {
  public:
    void Enable(std::uint32_t id) { sess_.try_emplace(id); }
    const MBUF_PROTOINT_SESS_S *Find(std::uint32_t id) const;
    // A packet of session id (stamped), kind, length, sequence, colour,
    // recorded at tick now.
    Outcome Record(std::uint32_t id, std::uint32_t kind, std::uint32_t len, std::uint32_t seq,
                   bool green, std::uint64_t now);

  private:
    std::uint32_t Suppress(std::uint64_t now);
    std::map<std::uint32_t, MBUF_PROTOINT_SESS_S> sess_;
    std::uint64_t lastReport_ = 0;
};

// The session's bytes, for a comparison that shows them on failure.
std::vector<std::uint8_t> Bytes(const MBUF_PROTOINT_SESS_S &sess);

}  // namespace krm::protointtest
