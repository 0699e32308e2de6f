// Metadata: which box takes which item, and how the items are written.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "meta.h"
#include "movie_reader.h"
#include "streams.h"
#include "udta.h"

namespace {

class Metadata : public ::testing::Test {
protected:
    Metadata() : m_udta(&m_out), m_meta(&m_out) {
        m_out.Init(nullptr);
        m_meta.SetIsQtff(true);
    }

    template <class Written>
    const Box& Read(Written& box) {
        m_out.Init(nullptr);
        box.Write();
        EXPECT_EQ(box.GetSize(), m_out.GetSize());
        m_movie = std::make_unique<MovieReader>(BytesOf(m_out));
        return m_movie->File().children.at(0);
    }

    LogCapture m_log;
    CBufferIO m_out;
    CMp4UdtaAtom m_udta;
    CMp4MetaAtom m_meta;
    std::unique_ptr<MovieReader> m_movie;
};

bool SetText(CMp4MetaAtom& meta, const char* key, const char* text) {
    return meta.SetMetaData(key, text, 0, MP4_META_DATA_TYPE_STRING, nullptr);
}

TEST_F(Metadata, EmptyBoxesAreStillWritten) {
    EXPECT_TRUE(SetText(m_udta.m_meta, "title", "Test"));
    EXPECT_EQ(Read(m_udta).At("meta/ilst").Content(8, 28),
              Hex("0000001c a96e616d 00000014 64617461 00000001 00000000 54657374"));
    EXPECT_TRUE(SetText(m_udta.m_meta, "title", nullptr)) << "cleared";
    EXPECT_EQ(Read(m_udta).size, 61U);
    m_meta.SetMetaData("k", "v", 1, streams::Forged<mp4_meta_data_type_t>(99), nullptr);
    EXPECT_EQ(Read(m_meta).At("ilst").size, 8U);
    EXPECT_GE(m_log.Count("error", "unknown meta data type:99"), 2) << "by size and by writing";
}

TEST_F(Metadata, WellKnownItemsAreTextUnderTheirTags) {
    const struct {
        const char* key;
        const char* tag;
    } kTable[] = {{"title", "\251nam"},         {"artist", "\251ART"},   {"album_artist", "aART"},
                  {"composer", "\251wrt"},      {"album", "\251alb"},    {"date", "\251day"},
                  {"encoding_tool", "\251too"}, {"comment", "\251cmt"},  {"genre", "\251gen"},
                  {"copyright", "\251cpy"},     {"grouping", "\251grp"}, {"lyrics", "\251lyr"},
                  {"description", "desc"},      {"synopsis", "ldes"},    {"show", "tvsh"},
                  {"episode_id", "tven"},       {"network", "tvnn"}};
    std::string order;
    for (size_t i = std::size(kTable); i-- > 0;) {  // the order of setting does not matter
        const char* const key = i % 2 == 0 ? kTable[i].key : kTable[i].tag;
        EXPECT_TRUE(SetText(m_udta.m_meta, key, "replaced")) << key;
        EXPECT_TRUE(SetText(m_udta.m_meta, key, kTable[i].key)) << key;
    }
    for (const auto& row : kTable)
        order += (order.empty() ? "" : " ") + std::string(row.tag);
    const Box& ilst = Read(m_udta).At("meta/ilst");
    EXPECT_EQ(ilst.ChildTypes(), order);
    for (const auto& row : kTable) {
        const Box& data = ilst.At(std::string(row.tag) + "/data");
        EXPECT_EQ(data.Content(8, 8), Hex("00000001 00000000"));
        EXPECT_EQ(data.Text(16, data.size - 16), row.key);
    }
    for (const char* const key : {"Title", "titl", "", "\251na", "org.example"})
        EXPECT_FALSE(SetText(m_udta.m_meta, key, "x")) << key;
    EXPECT_FALSE(SetText(m_udta.m_meta, nullptr, "x"));
}

TEST_F(Metadata, CustomItemsAreListedUnderKeys) {
    const int seven = 7;
    EXPECT_TRUE(m_meta.SetMetaData("org.example.num1", reinterpret_cast<const char*>(&seven), 4,
                                   MP4_META_DATA_TYPE_INT, nullptr));
    EXPECT_TRUE(m_meta.SetMetaData("k", "text\0more", 9, MP4_META_DATA_TYPE_STRING, "mdtaX"));
    EXPECT_TRUE(m_meta.SetMetaData("k", "\0\1\2", 3, MP4_META_DATA_TYPE_RAW, "ab"));
    const Box& meta = Read(m_meta);
    EXPECT_EQ(meta.ChildTypes(), "hdlr keys ilst");
    EXPECT_EQ(meta.At("keys").Content(8, meta.At("keys").size - 8),
              Hex("00000000 00000003 00000018 6d647461 6f72672e6578616d706c652e6e756d31"
                  "00000009 6d647461 6b 00000009 61620000 6b"));
    EXPECT_EQ(meta.At("ilst").Content(8, meta.At("ilst").size - 8),
              Hex("0000001c 00000001 00000014 64617461 00000015 00000000 00000007"
                  "0000001c 00000002 00000014 64617461 00000001 00000000 74657874"
                  "0000001b 00000003 00000013 64617461 00000000 00000000 000102"));
    EXPECT_FALSE(m_meta.SetMetaData("k", nullptr, 3, MP4_META_DATA_TYPE_RAW, nullptr));
    EXPECT_TRUE(m_log.Complaints().empty());
}

}  // namespace
