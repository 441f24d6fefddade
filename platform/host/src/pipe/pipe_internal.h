// What the pipe, message and trace files share: the writer's pieces as the
// platform sees them, the copies a reader receives, the frame that carries a
// package or a message between processes, and the socket link.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "krm_host/pipe.h"
#include "krm_mbuf/platform.h"

#pragma GCC visibility push(hidden)

namespace krm::host::pipe {

// Where the pipe service raises its own reports.
inline constexpr const char *kReportFile = "krm_host_pipe";

// How a package joins a queue.
enum class WriteKind : std::uint32_t {
    kNormal = 0,  // at the tail
    kUrgent = 1,  // at the head
    kPrio = 2,    // behind every package of the same or a higher priority
};

// One piece as a writer handed it over, with what the hidden header of the
// buffer it starts says. A piece that starts no live buffer is its own
// buffer: bufSize is its length, flag, trace id and owner are 0.
struct SrcPiece {
    const void *src;
    std::uint32_t len;
    std::uint32_t bufSize;
    std::uint32_t ctrlFlag;
    std::uint32_t traceId;
    std::uint32_t owner;  // the allocating module: the packet's memory handle
    bool live;
};

// A validated write: every packet's pieces, in order.
struct SrcPackage {
    std::vector<std::uint32_t> pieceCounts;  // one per packet
    std::vector<SrcPiece> pieces;            // all packets, concatenated
};

// A package in a queue: for each packet the addresses of its fresh buffers.
// The queue owns those buffers until a read hands them out.
struct Package {
    std::vector<std::vector<void *>> packets;
    std::uint32_t prio = 0;
    bool urgent = false;
};

// Checks a writer's descriptors: 1..kMaxPackets packets of
// 1..KRM_HOST_PIPE_MAX_PIECES non-NULL pieces, none longer than the buffer it
// starts. 0 and *out filled, or KRM_HOST_PIPE_ERR_ARGUMENT (reported when a
// piece claims more than its buffer holds).
inline constexpr std::uint32_t kMaxPackets = KRM_HOST_PIPE_MAX_PACKETS;
std::uint32_t ReadWriter(std::uint32_t pktCount, const MBUF_TRANS_DESC_S *pkts, SrcPackage *out);

// One fresh pipe buffer of piece.bufSize bytes holding the piece's len
// bytes, the rest zero, with its flag, trace id and owner; nullptr when none
// could be had.
void *FreshCopy(const SrcPiece &piece);

// Fresh copies of every piece of a validated write; all or nothing.
bool CopyPackage(const SrcPackage &src, Package *out);

// Releases every buffer a queued package holds.
void ReleasePackage(Package *pkg);

// Releases the writer's buffers (each live buffer start once).
void ReleaseWriter(const SrcPackage &src);

// ---- frames ----------------------------------------------------------------

enum class FrameType : std::uint32_t {
    kPackage = 1,
    kMessage = 2,
};

// Every frame starts with this header, eight big-endian words.
inline constexpr std::uint32_t kFrameMagic = 0x4B524D46u;
inline constexpr std::uint32_t kFrameHeaderSize = 32;
// Per packet one word (its piece count), per piece five (buffer size,
// length, control flag, trace id, owner).
inline constexpr std::uint32_t kPieceRecordSize = 20;
// No frame, and no sum of the buffers one frame asks for, may exceed this.
inline constexpr std::uint32_t kMaxFrame = 16u * 1024u * 1024u;

struct FrameHeader {
    std::uint32_t magic;
    std::uint32_t type;
    std::uint32_t total;  // bytes, header included
    std::uint32_t id;     // pipe or queue identifier of the sender
    std::uint32_t packets;
    std::uint32_t pieces;
    std::uint32_t arg1;  // package: WriteKind; message: class
    std::uint32_t arg2;  // package: priority; message: type
};

// The frame for a package or a message (one packet of one piece).
std::vector<unsigned char> EncodeFrame(const FrameHeader &head, const SrcPackage &src);

FrameHeader DecodeHeader(const unsigned char *bytes);

// Why a frame was refused; kOk when it may be used.
enum class FrameFault : std::uint32_t {
    kOk = 0,
    kShort,
    kOversized,
    kInconsistent,
    kNoMemory,  // the frame was sound but its buffers could not be had
};

// A received frame checked against itself: counts, lengths and sizes must
// add up exactly to the bytes received. On kOk *pkg holds fresh buffers.
// *why names the first fault found.
FrameFault DecodeBody(const FrameHeader &head, const std::vector<unsigned char> &body, Package *pkg,
                      const char **why);

const char *FrameFaultText(FrameFault fault);

// ---- socket link -------------------------------------------------------------

// Receives every frame a link accepted (on the link's own thread).
using DeliverFn = void (*)(std::uint32_t id, const FrameHeader &head, Package *pkg);
// Counts and reports a refused frame.
using RefuseFn = void (*)(std::uint32_t id);

// A socket bound for one pipe or queue, with the thread that reads its
// frames. The last holder's release stops the thread and closes the sockets
// (a listener also removes its path), so a writer that took a reference may
// finish its send while the pipe is being closed.
class Link;

struct LinkPlan {
    std::uint32_t id;
    FrameType type;     // the only frame type the link accepts
    const char *noun;   // "pipe" or "message queue", for reports
    DeliverFn deliver;  // takes the package's buffers over
    RefuseFn refuse;
};

// nullptr when the socket cannot be bound or connected.
std::shared_ptr<Link> LinkListen(const LinkPlan &plan, const char *path);
std::shared_ptr<Link> LinkConnect(const LinkPlan &plan, const char *path);

// Sends one frame to the peer; false when there is none or the send failed.
bool LinkSend(Link *link, const std::vector<unsigned char> &frame);

// Waits up to ms for the link to have a peer; false when it has none.
bool LinkWaitPeer(Link *link, std::uint32_t ms);

// ---- reset hooks ----------------------------------------------------------------

void ResetPipes();
void ResetMessages();
void ResetTrace();

}  // namespace krm::host::pipe

#pragma GCC visibility pop
