// Packets of a seed and the conversation two peers hold about them. Both
// peers make packet i from seed i with the library alone, so whatever their
// byte orders they agree on what must arrive: the receiver rebuilds each
// packet, compares it with its own copy and answers with a digest of what it
// got; the sender compares that digest with its own. Shared by the peer
// program and the cross-process tests.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "krm_host/pipe.h"
#include "krm_mbuf/mbuf.h"
#include "krm_mbuf/platform.h"

namespace krm::road {

inline constexpr std::uint32_t kModule = 0x524F;
inline constexpr std::uint32_t kWaitMs = 10000;
// A record the packet carries as bytes, large enough to need a separate block.
inline constexpr std::uint32_t kBlockRecord = MBUF_CTL_IPOPTION;
inline constexpr std::uint32_t kBlockRecordLen = 200;

inline std::uint32_t Step(std::uint32_t *pulState) {
    *pulState = *pulState * 1103515245u + 12345u;
    return *pulState >> 8;
}

inline std::uint8_t ByteOf(std::uint32_t seed, std::uint32_t i) {
    return static_cast<std::uint8_t>((i * 131u + seed * 7u) ^ (i >> 8));
}

// One to five parts of 1 to 1899 bytes each, joined; metadata from the seed;
// every third packet with a block record (whose bytes read the same in either
// byte order).
inline MBUF_S *MakePacket(std::uint32_t seed) {
    std::uint32_t state = seed * 2654435761u + 1;
    const std::uint32_t parts = 1 + Step(&state) % 5;
    MBUF_S *head = nullptr;
    std::uint32_t at = 0;
    std::vector<std::uint8_t> bytes;
    for (std::uint32_t p = 0; p < parts; ++p) {
        const std::uint32_t len = 1 + Step(&state) % 1899;  // an empty copy makes no packet
        const std::uint32_t room = Step(&state) % 60;
        bytes.resize(len);
        for (std::uint32_t i = 0; i < len; ++i) {
            bytes[i] = ByteOf(seed, at + i);
        }
        at += len;
        MBUF_S *part = MBUF_CreateByCopyBuffer(room, len, bytes.data(), 0, kModule);
        if (part == nullptr) {
            return head;
        }
        if (head == nullptr) {
            head = part;
        } else if (MBUF_Concatenate(head, part) != 0) {
            MBUF_Destroy(part);
        }
    }
    (void)MBUF_SetPathId(head, seed * 3);
    (void)MBUF_SetSockId(head, 0x5000 + seed);
    (void)MBUF_SetReceiveIfIndex(head, 0x70000 + seed);
    (void)MBUF_SetSendIfIndex(head, 0x80000 - seed);
    (void)MBUF_SetFlag2(head, seed << 4);
    (void)MBUF_SetFlag3(head, seed % 32);
    MBUF_SetPktPriority(head, seed % 8);
    if (seed % 3 == 0) {
        auto *rec = static_cast<std::uint8_t *>(
            MBUF_CreatePktTag(head, kBlockRecord, kBlockRecordLen, 0, kModule, "road", 1));
        for (std::uint32_t i = 0; rec != nullptr && i < kBlockRecordLen; ++i) {
            // Eight equal bytes a group: whatever word translation the
            // receiver applies to the record leaves its bytes as they are.
            rec[i] = ByteOf(seed + 1, i / 8);
        }
    }
    return head;
}

inline void Mix(std::uint64_t *pullHash, const void *p, std::uint32_t len) {
    const auto *b = static_cast<const std::uint8_t *>(p);
    for (std::uint32_t i = 0; i < len; ++i) {
        *pullHash = (*pullHash ^ b[i]) * 1099511628211ull;
    }
}

inline void MixWord(std::uint64_t *pullHash, std::uint32_t v) {
    const std::uint8_t b[4] = {static_cast<std::uint8_t>(v >> 24),
                               static_cast<std::uint8_t>(v >> 16),
                               static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
    Mix(pullHash, b, 4);
}

// A digest of what a receiver can compare whatever the sender's byte order:
// the data, the metadata read through the accessors, the block record.
inline std::uint64_t Digest(MBUF_S *m) {
    std::uint64_t h = 14695981039346656037ull;
    MixWord(&h, MBUF_GetTotalDataLength(m));
    for (MBUF_S *n = m; n != nullptr; n = n->pstNext) {
        Mix(&h, n->pucData, n->ulDataLen);
    }
    const std::uint32_t words[] = {
        MBUF_GetPathId(m), MBUF_GetSockId(m), MBUF_GetReceiveIfIndex(m), MBUF_GetSendIfIndex(m),
        MBUF_GetFlag2(m),  m->ulFlag3,        MBUF_GetPktPriority(m)};
    for (std::uint32_t w : words) {
        MixWord(&h, w);
    }
    if (MBUF_GetControlLen(m, kBlockRecord) != 0) {
        Mix(&h, MBUF_GetControlInfo(m, kBlockRecord), kBlockRecordLen);
    }
    return h;
}

enum class Mode { Pipe, Msg };

// Sends one packet (consumed) on the pipe or as a message.
inline std::uint32_t SendPacket(Mode mode, std::uint32_t id, MBUF_S *m) {
    if (mode == Mode::Msg) {
        return MBUF_SendMsg(kModule, id, m);
    }
    MBUF_IOVEC_S v[MBUF_PIPE_MAX_IOVEC];
    const std::uint32_t rc = MBUF_Send(id, m, v);
    if (rc != 0) {
        MBUF_Destroy(m);
    }
    return rc;
}

// Receives one packet, waiting up to kWaitMs; NULL when none came or it did
// not rebuild.
inline MBUF_S *ReceivePacket(Mode mode, std::uint32_t id) {
    if (mode == Mode::Msg) {
        void *msg = KRM_HOST_MsgReceive(id, kWaitMs, nullptr, nullptr);
        if (msg == nullptr) {
            return nullptr;
        }
        MBUF_S *m = MBUF_RecvMsg(msg);
        (void)TQM_MsgFree(kModule, msg);
        return m;
    }
    if (KRM_HOST_PipeWait(id, kWaitMs) == 0) {
        return nullptr;
    }
    MBUF_TRANS_DESC_S descs[4];
    std::uint32_t count = 4;
    std::uint32_t status = 0;
    MBUF_S *list = nullptr;
    if (MBUF_MultiRecv(id, &list, &count, &status, descs) != 0 || count != 1) {
        return nullptr;
    }
    return list;
}

// The answer to packet i: its digest as the receiver saw it, and whether it
// equalled the receiver's own copy.
inline MBUF_S *MakeAnswer(std::uint64_t digest, bool equal) {
    std::uint8_t b[9];
    for (int i = 0; i < 8; ++i) {
        b[i] = static_cast<std::uint8_t>(digest >> (56 - 8 * i));
    }
    b[8] = equal ? 1 : 0;
    return MBUF_CreateByCopyBuffer(16, sizeof(b), b, 0, kModule);
}

inline bool ReadAnswer(MBUF_S *m, std::uint64_t *pullDigest, bool *pbEqual) {
    std::uint8_t b[9];
    if (m == nullptr || MBUF_GetTotalDataLength(m) != sizeof(b) ||
        MBUF_CopyDataFromMBufToBuffer(m, 0, sizeof(b), b) != 0) {
        return false;
    }
    *pullDigest = 0;
    for (int i = 0; i < 8; ++i) {
        *pullDigest = (*pullDigest << 8) | b[i];
    }
    *pbEqual = b[8] == 1;
    return true;
}

struct Tally {
    std::uint32_t equal = 0;
    std::uint32_t differ = 0;
};

// The sender's side: packets first..first+count-1, each answered.
inline Tally RunSender(Mode mode, std::uint32_t id, std::uint32_t first, std::uint32_t count) {
    Tally t;
    for (std::uint32_t i = first; i < first + count; ++i) {
        MBUF_S *m = MakePacket(i);
        if (m == nullptr) {
            t.differ++;
            continue;
        }
        const std::uint64_t mine = Digest(m);
        std::uint64_t theirs = 0;
        bool equal = false;
        MBUF_S *answer = SendPacket(mode, id, m) == 0 ? ReceivePacket(mode, id) : nullptr;
        const bool ok = ReadAnswer(answer, &theirs, &equal) && equal && theirs == mine;
        (ok ? t.equal : t.differ)++;
        if (answer != nullptr) {
            MBUF_Destroy(answer);
        }
        if (answer == nullptr) {
            std::fprintf(stderr, "packet %u: no answer\n", i);
            t.differ += first + count - i - 1;
            break;
        }
    }
    return t;
}

// The receiver's side: each packet compared with its own copy and answered.
inline Tally RunReceiver(Mode mode, std::uint32_t id, std::uint32_t first, std::uint32_t count) {
    Tally t;
    for (std::uint32_t i = first; i < first + count; ++i) {
        MBUF_S *got = ReceivePacket(mode, id);
        if (got == nullptr) {
            std::fprintf(stderr, "packet %u: nothing arrived\n", i);
            t.differ += first + count - i;
            break;
        }
        MBUF_S *mine = MakePacket(i);
        const std::uint64_t digest = Digest(got);
        const bool equal = mine != nullptr && digest == Digest(mine);
        (equal ? t.equal : t.differ)++;
        MBUF_Destroy(mine);
        MBUF_Destroy(got);
        if (SendPacket(mode, id, MakeAnswer(digest, equal)) != 0) {
            std::fprintf(stderr, "packet %u: answer not sent\n", i);
        }
    }
    return t;
}

// Binds id to the socket at pcPath on either side; the connecting side tries
// for a few seconds while the listener comes up.
inline std::uint32_t Bind(Mode mode, std::uint32_t id, const char *pcPath, bool listen) {
    std::uint32_t rc = mode == Mode::Msg ? KRM_HOST_MsgOpen(id) : KRM_HOST_PipeOpen(id, 64);
    if (rc != 0) {
        return rc;
    }
    for (int attempt = 0; attempt < 100; ++attempt) {
        if (listen) {
            return mode == Mode::Msg ? KRM_HOST_MsgListen(id, pcPath)
                                     : KRM_HOST_PipeListen(id, pcPath);
        }
        rc = mode == Mode::Msg ? KRM_HOST_MsgConnect(id, pcPath) : KRM_HOST_PipeConnect(id, pcPath);
        if (rc == 0) {
            return 0;
        }
        struct timespec ts = {0, 100 * 1000 * 1000};
        nanosleep(&ts, nullptr);
    }
    return rc;
}

}  // namespace krm::road
