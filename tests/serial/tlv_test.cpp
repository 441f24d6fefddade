// The TLV stream at its edges: the sizes the writer promises, a buffer that
// holds the data but not every record, and a reader handed hand-built
// streams that break one rule each. Streams are written byte by byte here,
// independently of the writer.
#include "golden_support.h"

namespace krm::serialtest {
namespace {

// A stream built by hand: count and length are computed unless overridden.
struct StreamPlan {
    Bytes data;
    std::vector<std::pair<std::uint16_t, Bytes>> records;  // type, value
    std::uint32_t flag2 = 0x01020304u;
    int countOverride = -1;
    int lenOverride = -1;
    std::uint16_t dataType = 0xFFFF;
};

Bytes Build(const StreamPlan &s) {
    Bytes b(20, 0);
    Put32(b, 4, MBUF_TLV_PROBE);
    Put32(b, 8, s.flag2);
    Put16(b, 16, s.dataType);
    Put16(b, 18, static_cast<std::uint16_t>(s.data.size()));
    b.insert(b.end(), s.data.begin(), s.data.end());
    for (const auto &[type, value] : s.records) {
        Bytes head(4);
        Put16(head, 0, type);
        Put16(head, 2, static_cast<std::uint16_t>(value.size()));
        b.insert(b.end(), head.begin(), head.end());
        b.insert(b.end(), value.begin(), value.end());
    }
    Put16(
        b, 0,
        static_cast<std::uint16_t>(s.countOverride >= 0 ? s.countOverride : 1 + s.records.size()));
    Put16(b, 2, static_cast<std::uint16_t>(s.lenOverride >= 0 ? s.lenOverride : b.size() - 16));
    return b;
}

class TlvTest : public SerialTest {
  protected:
    MBUF_S *Read(Bytes &b) {
        return Keep(
            MBUF_TransTlv2Mbuf_fl(b.data(), static_cast<uint32_t>(b.size()), kModule, "rd", 5));
    }
};

TEST_F(TlvTest, SmallPacketWithTheCommonRecordOnly) {
    const Bytes data = Counting(100, 3);
    MBUF_S *pkt = Keep(MBUF_CreateByCopyBuffer(0, 100, data.data(), 0, kModule));
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(MBUF_CalcMbuf2TlvLen(pkt), 100u + 484u + 200u);
    Bytes buf(784, 0xCC);
    ASSERT_EQ(MBUF_TransMbuf2Tlv(pkt, buf.data(), 784, kModule), 0u);
    EXPECT_EQ(Get16(buf.data()), 2u);
    EXPECT_EQ(Get16(buf.data() + 2), 192u);
    EXPECT_EQ(Get32(buf.data() + 4), MBUF_TLV_PROBE);
    EXPECT_EQ(Get32(buf.data() + 12), 0xCCCCCCCCu);  // reserved: not written
    EXPECT_EQ(Get16(buf.data() + 16), 0xFFFFu);
    EXPECT_EQ(Get16(buf.data() + 18), 100u);
    EXPECT_EQ(Bytes(buf.begin() + 20, buf.begin() + 120), data);
    EXPECT_EQ(Get16(buf.data() + 120), 0u);
    EXPECT_EQ(Get16(buf.data() + 122), 84u);
    EXPECT_EQ(Bytes(buf.begin() + 124, buf.begin() + 208), RecordBytes(pkt, 0, 84));
    EXPECT_EQ(buf[208], 0xCC);
    EXPECT_EQ(MBUF_GetAllBlockSize(pkt), 316u);
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
        ASSERT_EQ(Get16(buf.data()), ulCount) << ulBuf;
        ASSERT_EQ(Get16(buf.data() + 2), ulEnd - 16) << ulBuf;
        ASSERT_EQ(Reports(), want) << ulBuf;
        MBUF_S *back = MBUF_TransTlv2Mbuf(buf.data(), ulEnd, kModule);
        ASSERT_NE(back, nullptr);
        for (const auto &[type, len] : lens) {
            if (type != 0) {
                EXPECT_EQ(MBUF_GetControlInfo(back, type) != nullptr,
                          std::count_if(lens.begin(), lens.begin() + (ulCount - 1),
                                        [t = type](const auto &l) { return l.first == t; }) == 1)
                    << ulBuf << " type " << type;
            }
        }
        MBUF_Destroy(back);
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
        EXPECT_EQ(Get16(buf.data()), 1u);  // the head was filled first
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

struct ReadRow {
    const char *name;
    StreamPlan stream;
    std::uint32_t cut;  // bytes taken off the end
    bool packet;
    std::vector<std::uint32_t> present;  // record types read
    std::vector<std::string> reports;
};

class TlvReadTest : public TlvTest, public ::testing::WithParamInterface<ReadRow> {};

TEST_P(TlvReadTest, ReaderStopsWhereTheStreamBreaks) {
    const ReadRow &row = GetParam();
    Bytes b = Build(row.stream);
    b.resize(b.size() - row.cut);
    MBUF_S *pkt = Read(b);
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
    EXPECT_EQ(krm::test::PacketBytes(pkt), row.stream.data);
    EXPECT_EQ(pkt->ulFlag2, row.stream.flag2);
    for (uint32_t t = 1; t < 23; ++t) {
        const bool bWant =
            std::find(row.present.begin(), row.present.end(), t) != row.present.end();
        EXPECT_EQ(MBUF_GetControlInfo(pkt, t) != nullptr, bWant) << t;
    }
}

StreamPlan WithRecords(std::vector<std::pair<std::uint16_t, Bytes>> recs) {
    StreamPlan s;
    s.data = Counting(30, 1);
    s.records = std::move(recs);
    return s;
}

StreamPlan Patched(StreamPlan s, int count, int len, std::uint16_t dataType = 0xFFFF) {
    s.countOverride = count;
    s.lenOverride = len;
    s.dataType = dataType;
    return s;
}

INSTANTIATE_TEST_SUITE_P(
    Streams, TlvReadTest,
    ::testing::Values(
        ReadRow{"count_one", Patched(WithRecords({{9, Bytes(4, 1)}}), 1, -1), 0, true, {}, {}},
        ReadRow{
            "two_records", WithRecords({{9, Bytes(4, 1)}, {2, Bytes(20, 2)}}), 0, true, {2, 9}, {}},
        ReadRow{"zero_length_ends",
                WithRecords({{9, Bytes(4, 1)}, {2, {}}, {3, Bytes(8, 1)}}),
                0,
                true,
                {9},
                {"krm_mbuf: Mbuf Len=0"}},
        ReadRow{"type_above_22_ends",
                WithRecords({{9, Bytes(4, 1)}, {23, Bytes(4, 1)}}),
                0,
                true,
                {9},
                {"krm_mbuf: Mbuf T=23"}},
        ReadRow{"duplicate_keeps_first",
                WithRecords({{9, Bytes(4, 1)}, {9, Bytes(4, 2)}}),
                0,
                true,
                {9},
                {"krm_mbuf: Ret=3f3 T=9 L=4"}},
        ReadRow{"record_past_end",
                Patched(WithRecords({{9, Bytes(4, 1)}, {2, Bytes(20, 2)}}), -1, 0),
                10,
                true,
                {9},
                {"krm_mbuf: Total=82, Buf=72"}},
        // A count claiming a record the stream does not have: the head
        // would be read past the end.
        ReadRow{"head_past_end",
                Patched(WithRecords({{9, Bytes(4, 1)}}), 3, 0),
                0,
                true,
                {9},
                {"krm_mbuf: Total Len=58, Buf Len=58", "krm_mbuf: Total=62, Buf=58"}},
        ReadRow{"head_cut_short",
                Patched(WithRecords({{9, Bytes(4, 1)}, {2, Bytes(20, 2)}}), -1, 0),
                22,
                true,
                {9},
                {"krm_mbuf: Total=62, Buf=60"}},
        ReadRow{"data_type_noted",
                Patched(WithRecords({}), -1, -1, 0x1234),
                0,
                true,
                {},
                {"krm_mbuf: Mbuf Type=4660"}},
        ReadRow{"stream_length_lies",
                Patched(WithRecords({}), -1, 500),
                0,
                false,
                {},
                {"krm_mbuf: T=500 B=50"}},
        ReadRow{"data_past_end", WithRecords({}), 5, false, {}, {"krm_mbuf: T=50 B=45"}},
        ReadRow{"sixteen_bytes", WithRecords({}), 34, false, {}, {}},
        ReadRow{"head_without_data_tlv",
                Patched(WithRecords({}), -1, 0),
                32,
                false,
                {},
                {"krm_mbuf: T=20 B=18"}}),
    [](const auto &row) { return std::string(row.param.name); });

TEST_F(TlvTest, UnknownProbeGivesNullAndForeignHeadIsConvertedInPlace) {
    Bytes b = Build(WithRecords({}));
    Put32(b, 4, 0x11223344u);
    EXPECT_EQ(Read(b), nullptr);
    EXPECT_EQ(Reports(), std::vector{AssertReport("krm_mbuf", 2405, "ByteOrder=1144201745")});

    // The same stream in the other order: the head's count, length and flag
    // word are left converted in the caller's buffer.
    Bytes f = Build(WithRecords({{9, Bytes{1, 2, 3, 4}}}));
    const Bytes host = f;
    for (const uint32_t off : {0u, 2u, 16u, 18u, 50u, 52u}) {
        std::swap(f[off], f[off + 1]);
    }
    for (const uint32_t off : {4u, 8u}) {
        std::reverse(f.begin() + off, f.begin() + off + 4);
    }
    MBUF_S *pkt = Read(f);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(pkt->ulFlag2, 0x01020304u);
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 4), Bytes(host.begin(), host.begin() + 4));
    EXPECT_EQ(Bytes(f.begin() + 8, f.begin() + 12), Bytes(host.begin() + 8, host.begin() + 12));
    // The previous-hop record is one word: converted by its translator.
    EXPECT_EQ(RecordBytes(pkt, 9, 4), (Bytes{4, 3, 2, 1}));
}

// A fixed record that is longer in the stream is created with the stream's
// length; a shorter one with the table length, the rest zero.
TEST_F(TlvTest, FixedRecordsTakeTheLargerLength) {
    Bytes b = Build(WithRecords({{2, Counting(28, 1)}, {11, Counting(8, 9)}}));
    MBUF_S *pkt = Read(b);
    ASSERT_NE(pkt, nullptr);
    EXPECT_EQ(MBUF_GetControlLen(pkt, 2), 32u);
    EXPECT_EQ(RecordBytes(pkt, 2, 28), Counting(28, 1));
    EXPECT_EQ(MBUF_GetControlLen(pkt, 11), 40u);
    Bytes want = Counting(8, 9);
    want.resize(40, 0);
    EXPECT_EQ(RecordBytes(pkt, 11, 40), want);
    // A longer common record fills its 84 bytes and leaves the block intact.
    Bytes c = Build(WithRecords({{0, Counting(120, 5)}, {9, Bytes(4, 7)}}));
    MBUF_S *pc = Read(c);
    ASSERT_NE(pc, nullptr);
    EXPECT_EQ(RecordBytes(pc, 0, 84), Counting(84, 5));
    EXPECT_EQ(RecordBytes(pc, 9, 4), Bytes(4, 7));
    ExpectValid(pc);
}

}  // namespace
}  // namespace krm::serialtest
