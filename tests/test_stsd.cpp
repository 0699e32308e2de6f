// Sample descriptions: one entry for each codec, with its configuration.
#include <gtest/gtest.h>

#include "esds.h"
#include "log_capture.h"
#include "movie_reader.h"
#include "streams.h"
#include "stsd.h"

namespace {

class SampleDescription : public ::testing::Test {
protected:
    SampleDescription() { m_out.Init(nullptr); }

    template <class Stsd>
    const Box& Entry(Stsd& stsd) {
        stsd.Write();
        EXPECT_EQ(stsd.GetSize(), m_out.GetSize());
        m_movie = std::make_unique<MovieReader>(BytesOf(m_out));
        const Box& box = m_movie->At("stsd");
        EXPECT_EQ(box.U32(8), 0U);
        EXPECT_EQ(box.U32(12), 1U);
        EXPECT_EQ(box.children.size(), 1U);
        EXPECT_EQ(box.children.at(0).Content(8, 8), Hex("000000000000 0001"));
        return box.children.at(0);
    }

    /// The code that writing throws; 0 when it throws none.
    static int Refusal(CMp4VideoStsdAtom& stsd) {
        try {
            stsd.Write();
        } catch (int code) {
            return code;
        }
        return 0;
    }

    LogCapture m_log;
    CBufferIO m_out;
    std::unique_ptr<MovieReader> m_movie;
};

TEST_F(SampleDescription, H264KeepsItsOwnCopiesOfTheLastSets) {
    CMp4VideoStsdAtom stsd(&m_out);
    Bytes sps = Hex("6742c00a11");
    Bytes pps = Hex("68ce");
    mp4_h264_parameter_set_t sets{sps.data(), 5, pps.data(), 2};
    stsd.SetH264(&sets);
    sps = Hex("67640028");
    sets = {sps.data(), 4, pps.data(), 2};
    stsd.SetH264(&sets);
    sps.assign(4, 0);
    pps.assign(2, 0);
    EXPECT_EQ(Entry(stsd).At("avcC").Content(8, 17),
              Hex("01 640028 ff e1 0004 67640028 01 0002 68ce"));
}

TEST_F(SampleDescription, H264WithoutUsableSetsCannotBeWritten) {
    const Bytes bytes = Hex("67420a00");
    const std::pair<int16_t, int16_t> kSizes[] = {{0, 0}, {3, 4}, {4, 0}};
    for (const auto& [sps, pps] : kSizes) {
        CMp4VideoStsdAtom stsd(&m_out);
        const mp4_h264_parameter_set_t sets{bytes.data(), sps, bytes.data(), pps};
        stsd.SetH264(&sets);
        EXPECT_EQ(Refusal(stsd), 49) << sps << " " << pps;
    }
}

TEST_F(SampleDescription, HevcWithoutASetCannotBeWrittenWithAnOddOneItCan) {
    const Bytes garbage(20, 0xFF);
    for (int bad = 0; bad < 6; ++bad) {
        CMp4VideoStsdAtom stsd(&m_out);
        auto sets = streams::HevcTrack().hevc;
        const uint8_t** const pointers[] = {&sets.vps, &sets.sps, &sets.pps};
        *pointers[bad % 3] = bad < 3 ? nullptr : garbage.data();
        sets.vps_size = sets.vps == nullptr ? 0 : 20;
        sets.sps_size = sets.sps == nullptr ? 0 : 20;
        sets.pps_size = sets.pps == nullptr ? 0 : 7;
        stsd.SetHevc(&sets);
        EXPECT_EQ(Refusal(stsd), bad < 3 ? 71 : 0) << bad;
    }
}

TEST_F(SampleDescription, ProRes) {
    const struct {
        mp4_prores_format format;
        const char* type;
        const char* name;
        uint16_t depth;
    } kTable[] = {{MP4_PRORES_422_proxy, "apco", "Apple ProRes 422 Proxy", 24},
                  {MP4_PRORES_422_LT, "apcs", "Apple ProRes 422 LT", 24},
                  {MP4_PRORES_422, "apcn", "Apple ProRes 422", 24},
                  {MP4_PRORES_422_HQ, "apch", "Apple ProRes 422 HQ", 24},
                  {MP4_PRORES_4444, "ap4h", "Apple ProRes 4444", 32},
                  {MP4_PRORES_4444_XQ, "ap4x", "Apple ProRes 4444 XQ", 32}};
    for (const auto& row : kTable) {
        m_out.Init(nullptr);
        CMp4VideoStsdAtom stsd(&m_out);
        stsd.SetResolution(65536 + 1920, 1080);
        const mp4_prores_parameter_set_t set{row.format};
        stsd.SetProRes(&set);
        const Box& entry = Entry(stsd);
        EXPECT_EQ(entry.type, row.type);
        EXPECT_EQ(entry.size, 112U);
        EXPECT_EQ(entry.Text(20, 4), "appl");
        EXPECT_EQ(entry.U16(32), 1920) << "the low 16 bits";
        const std::string name = row.name;
        EXPECT_EQ(entry.Text(50, 32),
                  static_cast<char>(name.size()) + name + std::string(31 - name.size(), '\0'));
        EXPECT_EQ(entry.U16(82), row.depth);
        EXPECT_EQ(entry.Content(86, 26),
                  Hex("0000000a 6669656c 0100 00000010 70617370 00000001 00000001"));
    }
}

TEST_F(SampleDescription, UnknownProResFormatKeepsWhatWasThere) {
    CMp4VideoStsdAtom stsd(&m_out);
    for (const auto format : {MP4_PRORES_4444, streams::Forged<mp4_prores_format>(6)}) {
        const mp4_prores_parameter_set_t set{format};
        stsd.SetProRes(&set);
    }
    EXPECT_EQ(m_log.Count("error", "invalid prores format 6", "SetProRes"), 1);
    EXPECT_EQ(Entry(stsd).type, "ap4h");
}

TEST_F(SampleDescription, AudioConfigurationsOfOtherLengths) {
    CMp4EsdsAtom esds(&m_out);
    esds.Write();
    EXPECT_EQ(BytesOf(m_out).size(), 44U);
    EXPECT_EQ(BytesOf(m_out)[16], 27);  // ES descriptor without decoder-specific part
    const Bytes config = Hex("1188562e50");
    esds.SetVosData(config.data(), 5);
    m_out.Init(nullptr);
    esds.Write();
    const Bytes box = BytesOf(m_out);
    ASSERT_EQ(box.size(), 54U);
    EXPECT_EQ(esds.GetSize(), 54U);
    EXPECT_EQ(box[16], 37);
    EXPECT_EQ(box[24], 23);
    EXPECT_EQ(Bytes(box.begin() + 38, box.begin() + 48), Hex("05 80808005") + config);
}

}  // namespace
