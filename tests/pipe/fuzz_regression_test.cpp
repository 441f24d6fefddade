// Receives that fuzzing found unsafe, each kept as a row built from the
// node words of its input (fuzz/corpus/trace/regress-head-as-own-block).
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <vector>

#include "host_test.h"
#include "krm_mbuf/mbuf.h"

namespace krm::test {
namespace {

class PipeFuzzRegressionTest : public HostTest {};

// A one-piece packet whose head says a separate block travels: the only
// piece is the head itself. The head keeps its inline block, so that
// destroying the packet releases the node once (the head taken as its own
// block was freed twice).
TEST_F(PipeFuzzRegressionTest, OnePieceWithTheBlockFlagKeepsTheInlineBlock) {
    struct Row {
        const char *name;
        std::uint32_t flags;
        std::uint32_t dataLen;
        std::vector<Report> destroyReports;
    };
    const std::vector<Row> rows = {
        {"plain head", MBUF_PKTHDR, 80, {}},
        {"the fuzz input: external flag, no buffer, 1400 bytes",
         MBUF_PKTHDR | MBUF_EXT,
         1400,
         {AssertReport("mbuf_uipc_mbuf", 132, "MBUF_FreeExtInfoAndMbuf: ext_buf is null")}},
    };
    using Receive = std::uint32_t (*)(MBUF_S **, MBUF_TRANS_DESC_S *);
    const Receive receives[] = {&MBUF_RcvTrans, &MBUF_RcvTransReadOnly};
    for (const Row &row : rows) {
        for (Receive receive : receives) {
            SCOPED_TRACE(row.name);
            std::vector<std::uint8_t> data(80);
            std::iota(data.begin(), data.end(), 1);
            MBUF_S *head = MBUF_CreateByCopyBuffer(0, 80, data.data(), 0, 0x10000);
            ASSERT_NE(head, nullptr);
            head->ulFlag = row.flags | MBUF_FLAG_CTLINFO_SENT;
            head->ulDataLen = row.dataLen;
            head->ulRsv0 = 0;
            head->ucByteOrder = MBUF_BYTEORDER_HOST;
            void *pieces[] = {head};
            MBUF_TRANS_DESC_S desc{1, reinterpret_cast<MBUF_IOVEC_S *>(pieces)};
            MBUF_S *out = nullptr;
            ASSERT_EQ(receive(&out, &desc), 0u);
            ASSERT_EQ(out, head);
            EXPECT_EQ(out->pstCtlInfo, &out->stCtlInfo.stBlk);
            EXPECT_EQ(out->ulFlag & MBUF_FLAG_CTLINFO_SENT, 0u);
            KRM_HOST_ReportClear();
            MBUF_Destroy(out);
            EXPECT_EQ(Reports(), row.destroyReports);
            EXPECT_EQ(KRM_HOST_LiveBufferCount(), 0u);
        }
    }
}

// A receive that fails after it allocated (an external buffer for head data
// past the inline area, an upgraded block) releases what it allocated and
// leaves every piece live with the caller, the received block included
// (fuzz/corpus/pipe/regress-failed-receive-leak).
TEST_F(PipeFuzzRegressionTest, AFailedReceiveLeavesOnlyThePieces) {
    for (const bool oldBlock : {false, true}) {
        SCOPED_TRACE(oldBlock ? "block of 20 slots" : "inline block");
        std::vector<std::uint8_t> data(80, 7);
        MBUF_S *head = MBUF_CreateByCopyBuffer(0, 80, data.data(), 0, 0x10000);
        ASSERT_NE(head, nullptr);
        head->ulRsv2 = 800;  // 800 + 80 bytes: past the inline area
        head->ulRsv0 = MBUF_PIPE_MORE_NODES;
        head->ucByteOrder = MBUF_BYTEORDER_HOST;
        std::vector<void *> pieces = {head, nullptr};
        if (oldBlock) {
            const MBUF_FILE_LINE_S fl{"t", 1};
            auto *blk = static_cast<MBUF_CONTROL_BLK_S *>(MBUF_MemAlloc_fl(448, 0x10000, &fl));
            ASSERT_NE(blk, nullptr);
            std::memset(blk, 0, 448);
            blk->ucBlkMark = MBUF_CTL_BLK_MARK;
            blk->ucByteOrder = MBUF_BYTEORDER_HOST;
            blk->ucSlotNum = 20;
            blk->usCapacity = 100;
            head->ulFlag |= MBUF_FLAG_CTLINFO_SENT;
            pieces.push_back(blk);
        }
        MBUF_TRANS_DESC_S desc{static_cast<std::uint32_t>(pieces.size()),
                               reinterpret_cast<MBUF_IOVEC_S *>(pieces.data())};
        MBUF_S *out = nullptr;
        EXPECT_EQ(MBUF_RcvTrans(&out, &desc), 1000u);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(KRM_HOST_LiveBufferCount(), oldBlock ? 2u : 1u);
        for (void *piece : pieces) {
            KRM_HOST_BUF_INFO_S info;
            if (piece != nullptr) {
                EXPECT_EQ(KRM_HOST_BufferInfo(piece, &info), 0u) << "piece released";
                const MBUF_FILE_LINE_S fl{"t", 2};
                EXPECT_EQ(MBUF_MemFree_fl(piece, &fl), 0u);
            }
        }
    }
}

}  // namespace
}  // namespace krm::test
