// The TLV stream at its edges: the sizes the writer promises, a buffer that
// holds the data but not every record, and a reader handed hand-built
// streams that break one rule each. Streams are written byte by byte here,
// independently of the writer.
#include <algorithm>

#include "serial_support.h"

namespace krm::serialtest {
namespace {

using Recs = std::vector<std::pair<std::uint16_t, Bytes>>;  // type, value

// A stream built by hand: count and length are computed unless overridden.
struct StreamPlan {
    Bytes data;
    Recs records;
    std::uint32_t flag2 = 0x01020304u;
    int countOverride = -1;
    int lenOverride = -1;
    std::uint16_t dataType = 0xFFFF;
};

Bytes Build(const StreamPlan &s) {
    Bytes b(20, 0);
    Put<std::uint32_t>(b, 4, MBUF_TLV_PROBE);
    Put<std::uint32_t>(b, 8, s.flag2);
    Put<std::uint16_t>(b, 16, s.dataType);
    Put<std::uint16_t>(b, 18, static_cast<std::uint16_t>(s.data.size()));
    b.insert(b.end(), s.data.begin(), s.data.end());
    for (const auto &[type, value] : s.records) {
        b.resize(b.size() + 4);
        Put<std::uint16_t>(b, b.size() - 4, type);
        Put<std::uint16_t>(b, b.size() - 2, static_cast<std::uint16_t>(value.size()));
        b.insert(b.end(), value.begin(), value.end());
    }
    const auto count = s.countOverride >= 0 ? s.countOverride : 1 + s.records.size();
    const auto len = s.lenOverride >= 0 ? s.lenOverride : b.size() - 16;
    Put<std::uint16_t>(b, 0, static_cast<std::uint16_t>(count));
    Put<std::uint16_t>(b, 2, static_cast<std::uint16_t>(len));
    return b;
}

using TlvTest = SerialTest;

// A 100-byte packet with only the common record: the stream byte for byte
// (the reserved word and the room behind the stream are not written). The
// image's bytes are the golden files' and the round trips'; here only what
// its writer refuses.
TEST_F(TlvTest, SmallPacketStreamAndRefusedImages) {
    const Bytes data = Counting(100, 3);
    MBUF_S *pkt = Keep(MBUF_CreateByCopyBuffer(0, 100, data.data(), 0, kModule));
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(MBUF_CalcMbuf2TlvLen(pkt), 100u + 484u + 200u);
    Bytes buf(784, 0xCC);
    ASSERT_EQ(MBUF_TransMbuf2Tlv(pkt, buf.data(), 784, kModule), 0u);
    Bytes want = Build({data, {{0, RecordBytes(pkt, 0, 84)}}, pkt->ulFlag2});
    std::fill(want.begin() + 12, want.begin() + 16, 0xCC);
    want.resize(784, 0xCC);
    EXPECT_EQ(buf, want);

    MBUF_S stPlain{};
    EXPECT_EQ(std::tuple(MBUF_GetAllBlockSize(nullptr), MBUF_GetAllBlockSize(&stPlain),
                         MBUF_Serialize(nullptr, buf.data()), MBUF_Serialize(&stPlain, buf.data()),
                         MBUF_Serialize(pkt, nullptr)),
              std::tuple(0u, 0u, MBUF_ERR_INVALID_MBUF, MBUF_ERR_INVALID_MBUF, MBUF_ERR_NO_DATA));
    EXPECT_EQ(MBUF_Deserialize(nullptr, 10, kModule), nullptr);
}

// Every buffer length from the data's end to the full stream: the records
// that fit are written in ascending type, the first that does not ends the
// list with its report, and count and length describe what is there.
TEST_F(TlvTest, ShortBufferKeepsTheRecordsThatFit) {
    const PacketPlan plan = krm::golden::Packets()[1];
    MBUF_S *pkt = Keep(krm::golden::Build(plan, kModule));
    ASSERT_NE(pkt, nullptr);
    std::vector<std::pair<uint32_t, uint32_t>> lens{{0, 84}};  // type, L in ascending type
    for (uint32_t t = 1; t < 23; ++t) {
        if (MBUF_GetControlInfo(pkt, t) != nullptr) {
            lens.push_back({t, MBUF_GetCtlLen(pkt, t)});
        }
    }
    const uint32_t ulDataEnd = 20 + plan.dataLen;
    for (uint32_t ulBuf = ulDataEnd; ulBuf <= MBUF_CalcMbuf2TlvLen(pkt); ++ulBuf) {
        KRM_HOST_ReportClear();
        Bytes buf(ulBuf, 0);
        ASSERT_EQ(MBUF_TransMbuf2Tlv_fl(pkt, buf.data(), ulBuf, kModule, "wr", 7), 0u);
        uint32_t ulEnd = ulDataEnd;
        uint32_t ulCount = 1;
        std::vector<krm::test::Report> want;
        for (const auto &[type, len] : lens) {
            if (ulEnd + 4 + len > ulBuf) {
                char text[65];
                std::snprintf(text, sizeof(text),
                              "Input buflen %u err from %s:%u when encap type %u len %u.", ulBuf,
                              "wr", 7u, type, len);
                want.push_back(AssertReport("krm_mbuf", 2338, text));
                break;
            }
            ulEnd += 4 + len;
            ++ulCount;
        }
        ASSERT_EQ(Get<std::uint16_t>(buf.data()), ulCount) << ulBuf;
        ASSERT_EQ(Get<std::uint16_t>(buf.data() + 2), ulEnd - 16) << ulBuf;
        ASSERT_EQ(Reports(), want) << ulBuf;
    }
}

TEST_F(TlvTest, WriterRefusesEmptyAndWrappingLengths) {
    for (const uint32_t ulLen : {0u, 65536u}) {
        MBUF_S *pkt = Keep(MBUF_CreateForAppPacket(0, ulLen, 0, kModule));
        ASSERT_NE(pkt, nullptr);
        pkt->ulDataLen = ulLen;
        pkt->ulTotalDataLen = ulLen;
        Bytes buf(1000, 0);
        EXPECT_EQ(MBUF_TransMbuf2Tlv(pkt, buf.data(), 1000, kModule), MBUF_ERR_NO_DATA) << ulLen;
        EXPECT_EQ(Get<std::uint16_t>(buf.data()), 1u);  // the head was filled first
    }
    MBUF_S *pkt = Keep(MBUF_CreateForControlPacket(0, 10, 0, kModule));
    KRM_HOST_ReportClear();
    uint8_t b[4];
    EXPECT_EQ(MBUF_TransMbuf2Tlv_fl(pkt, b, 0x80000000u, kModule, "wr", 3), 0u);
    // A negative length writes nothing; each step that would have written
    // says so with the caller's length.
    const std::string where = "Input buflen 2147483648 err from wr:3";
    EXPECT_EQ(Reports(),
              (std::vector{AssertReport("krm_mbuf", 2301, where + "."),
                           AssertReport("krm_mbuf", 2322, where + " when encap type 0 len 10."),
                           AssertReport("krm_mbuf", 2338, where + " when encap type 0 len 84.")}));
}

// A stream of 30 data bytes and these records; count and length patched
// where not -1, bytes cut off its end.
struct ReadRow {
    const char *name;
    Recs recs;
    int count;
    int len;
    std::uint32_t cut;
    bool packet;
    std::vector<std::uint32_t> present;  // record types read
    std::vector<std::string> reports;    // "file: text" of each report
    std::uint16_t dataType = 0xFFFF;
};

const Bytes k4(4, 1);
const Bytes k20(20, 2);

// clang-format off
const ReadRow kReadRows[] = {
    {"count_one", {{9, k4}}, 1, -1, 0, true, {}, {}},
    {"two_records", {{9, k4}, {2, k20}}, -1, -1, 0, true, {2, 9}, {}},
    {"zero_length_ends", {{9, k4}, {2, {}}, {3, Bytes(8, 1)}}, -1, -1, 0, true, {9}, {"krm_mbuf: Mbuf Len=0"}},
    {"type_above_22_ends", {{9, k4}, {23, k4}}, -1, -1, 0, true, {9}, {"krm_mbuf: Mbuf T=23"}},
    {"duplicate_keeps_first", {{9, k4}, {9, Bytes(4, 2)}}, -1, -1, 0, true, {9}, {"krm_mbuf: Ret=3f3 T=9 L=4"}},
    {"record_past_end", {{9, k4}, {2, k20}}, -1, 0, 10, true, {9}, {"krm_mbuf: Total=82, Buf=72"}},
    // A count claiming a record the stream does not have: the head would be
    // read past the end.
    {"head_past_end", {{9, k4}}, 3, 0, 0, true, {9},
     {"krm_mbuf: Total Len=58, Buf Len=58", "krm_mbuf: Total=62, Buf=58"}},
    {"head_cut_short", {{9, k4}, {2, k20}}, -1, 0, 22, true, {9}, {"krm_mbuf: Total=62, Buf=60"}},
    {"data_type_noted", {}, -1, -1, 0, true, {}, {"krm_mbuf: Mbuf Type=4660"}, 0x1234},
    {"stream_length_lies", {}, -1, 500, 0, false, {}, {"krm_mbuf: T=500 B=50"}},
    {"data_past_end", {}, -1, -1, 5, false, {}, {"krm_mbuf: T=50 B=45"}},
    {"sixteen_bytes", {}, -1, -1, 34, false, {}, {}},
    {"head_without_data_tlv", {}, -1, 0, 32, false, {}, {"krm_mbuf: T=20 B=18"}},
};
// clang-format on

class TlvReadTest : public TlvTest, public ::testing::WithParamInterface<ReadRow> {};

TEST_P(TlvReadTest, ReaderStopsWhereTheStreamBreaks) {
    const ReadRow &row = GetParam();
    const StreamPlan s{Counting(30, 1), row.recs, 0x01020304u, row.count, row.len, row.dataType};
    Bytes b = Build(s);
    b.resize(b.size() - row.cut);
    MBUF_S *pkt = ReadTlv(b);
    EXPECT_EQ(pkt != nullptr, row.packet);
    std::vector<std::string> texts;
    for (const auto &r : Reports()) {
        texts.push_back(r.file + ": " + r.text);
    }
    EXPECT_EQ(texts, row.reports);
    if (pkt == nullptr) {
        return;
    }
    ExpectValid(pkt);
    EXPECT_EQ(krm::test::PacketBytes(pkt), s.data);
    EXPECT_EQ(pkt->ulFlag2, s.flag2);
    for (uint32_t t = 1; t < 23; ++t) {
        const bool bWant =
            std::find(row.present.begin(), row.present.end(), t) != row.present.end();
        EXPECT_EQ(MBUF_GetControlInfo(pkt, t) != nullptr, bWant) << t;
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, TlvReadTest, ::testing::ValuesIn(kReadRows),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(TlvTest, UnknownProbeGivesNullAndForeignHeadIsConvertedInPlace) {
    Bytes b = Build({Counting(30, 1), {}});
    Put<std::uint32_t>(b, 4, 0x11223344u);
    EXPECT_EQ(ReadTlv(b), nullptr);
    EXPECT_EQ(Reports(), std::vector{AssertReport("krm_mbuf", 2405, "ByteOrder=1144201745")});

    // The same stream in the other order: the head's count, length and flag
    // word are left converted in the caller's buffer.
    Bytes f = Build({Counting(30, 1), {{9, Bytes{1, 2, 3, 4}}}});
    const Bytes host = f;
    for (const uint32_t off : {0u, 2u, 16u, 18u, 50u, 52u}) {
        std::swap(f[off], f[off + 1]);
    }
    for (const uint32_t off : {4u, 8u}) {
        std::reverse(f.begin() + off, f.begin() + off + 4);
    }
    MBUF_S *pkt = ReadTlv(f);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->ulFlag2, 0x01020304u);
    std::copy_n(host.begin() + 4, 4, f.begin() + 4);  // the probe stays as it came
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 12), Bytes(host.begin(), host.begin() + 12));
    // The previous-hop record is one word: converted by its translator.
    EXPECT_EQ(RecordBytes(pkt, 9, 4), (Bytes{4, 3, 2, 1}));
}

// A fixed record that is longer in the stream is created with the stream's
// length; a shorter one with the table length, the rest zero. A longer
// common record fills its 84 bytes and leaves the block intact.
TEST_F(TlvTest, FixedRecordsTakeTheLargerLength) {
    Bytes b = Build({Counting(30, 1), {{2, Counting(28, 1)}, {11, Counting(8, 9)}}});
    MBUF_S *pkt = ReadTlv(b);
    ASSERT_NE(pkt, nullptr);
    Bytes want = Counting(8, 9);
    want.resize(40, 0);
    EXPECT_EQ(std::tuple(MBUF_GetControlLen(pkt, 2), RecordBytes(pkt, 2, 28),
                         MBUF_GetControlLen(pkt, 11), RecordBytes(pkt, 11, 40)),
              std::tuple(32u, Counting(28, 1), 40u, want));
    Bytes c = Build({Counting(30, 1), {{0, Counting(120, 5)}, {9, Bytes(4, 7)}}});
    MBUF_S *pc = ReadTlv(c);
    ASSERT_NE(pc, nullptr);
    EXPECT_EQ(RecordBytes(pc, 0, 84), Counting(84, 5));
    EXPECT_EQ(RecordBytes(pc, 9, 4), Bytes(4, 7));
    ExpectValid(pc);
}

}  // namespace
}  // namespace krm::serialtest
