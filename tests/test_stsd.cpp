// Sample descriptions: one entry for each codec, with its configuration.
#include <gtest/gtest.h>

#include "esds.h"
#include "log_capture.h"
#include "movie_reader.h"
#include "streams.h"
#include "stsd.h"

namespace {

/// Writes the box twice and returns what the second time gave, whole.
template <class Stsd>
Bytes Written(Stsd& stsd) {
    CBufferIO out;
    out.Init(nullptr);
    stsd.setWriter(&out);
    stsd.Write();
    const Bytes first = BytesOf(out);
    EXPECT_EQ(stsd.GetSize(), first.size());
    return first;
}

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

    LogCapture m_log;
    CBufferIO m_out;
    std::unique_ptr<MovieReader> m_movie;
};

TEST_F(SampleDescription, H264) {
    CMp4VideoStsdAtom stsd(&m_out);
    stsd.SetResolution(1920, 1080);
    const Bytes sps = Hex("67640028") + Bytes(21, 0x5A);
    const Bytes pps = Hex("68ebe3cb");
    const mp4_h264_parameter_set_t sets{sps.data(), 25, pps.data(), 4};
    stsd.SetH264(&sets);
    const Box& entry = Entry(stsd);
    EXPECT_EQ(entry.type, "avc1");
    EXPECT_EQ(entry.size, 134U);
    EXPECT_EQ(stsd.GetSize(), 150U);
    EXPECT_EQ(entry.Content(16, 70),
              Hex("0000 0000 00000000 00000000 00000000 0780 0438 00480000 00480000 00000000"
                  "0001") +
                  Bytes(32, 0) + Hex("0018 ffff"));
    EXPECT_EQ(entry.At("avcC").Content(8, 40),
              Hex("01 640028 ff e1 0019") + sps + Hex("01 0004") + pps);
    EXPECT_TRUE(m_log.Complaints().empty());
}

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
    const struct {
        int16_t sps;
        int16_t pps;
    } kTable[] = {{0, 0}, {3, 4}, {4, 0}};
    for (const auto& row : kTable) {
        CMp4VideoStsdAtom stsd(&m_out);
        const mp4_h264_parameter_set_t sets{bytes.data(), row.sps, bytes.data(), row.pps};
        stsd.SetH264(&sets);
        try {
            stsd.Write();
            ADD_FAILURE() << "written";
        } catch (int code) {
            EXPECT_EQ(code, 49);
        }
        EXPECT_EQ(m_log.Count("error",
                              "Invalid sps(" + std::to_string(row.sps) + ") or pps(" +
                                  std::to_string(row.pps) + ") size !",
                              "Write"),
                  1);
    }
}

TEST_F(SampleDescription, Hevc) {
    CMp4VideoStsdAtom stsd(&m_out);
    stsd.SetResolution(64, 64);
    auto track = streams::HevcTrack();
    track.hevc.vps = nullptr;
    stsd.SetHevc(&track.hevc);  // replaced by the next
    track = streams::HevcTrack();
    stsd.SetHevc(&track.hevc);
    const Box& entry = Entry(stsd);
    EXPECT_EQ(entry.type, "hvc1");
    const Box& hvcc = entry.At("hvcC");
    EXPECT_EQ(hvcc.size, 31U + 3 * 3 + 2 * 3 + 24 + 41 + 7);
    // Main profile, level 1, 4:2:0, 8 bits, one temporal layer, 4-byte lengths.
    EXPECT_EQ(hvcc.Content(8, 13), Hex("01 01 60000000 900000000000 1e"));
    EXPECT_EQ(hvcc.U8(24), 0xFD) << "chroma format 4:2:0";
    EXPECT_EQ(hvcc.U16(25), 0xF8F8) << "bit depths";
    EXPECT_EQ(hvcc.U8(29) & 3, 3) << "length size";
    EXPECT_EQ(hvcc.Content(30, hvcc.size - 30), Hex("03 a0 0001 0018") + streams::kHevcVps +
                                                    Hex("a1 0001 0029") + streams::kHevcSps +
                                                    Hex("a2 0001 0007") + streams::kHevcPps);
    EXPECT_TRUE(m_log.Complaints().empty());
}

TEST_F(SampleDescription, HevcWithoutUsableSetsCannotBeWritten) {
    const Bytes garbage(20, 0xFF);
    const char* const kNames[] = {"vps", "sps", "pps"};
    for (int bad = 0; bad < 6; ++bad) {
        CMp4VideoStsdAtom stsd(&m_out);
        auto sets = streams::HevcTrack().hevc;
        const uint8_t** const pointers[] = {&sets.vps, &sets.sps, &sets.pps};
        *pointers[bad % 3] = bad < 3 ? nullptr : garbage.data();
        sets.vps_size = sets.sps_size = sets.pps_size = 0;
        if (sets.vps != nullptr) sets.vps_size = 20;
        if (sets.sps != nullptr) sets.sps_size = 20;
        if (sets.pps != nullptr) sets.pps_size = 7;
        m_log.Clear();
        stsd.SetHevc(&sets);
        if (bad >= 3) {
            EXPECT_GE(m_log.Count("error", std::string("Parse hevc ") + kNames[bad % 3] + " fail !",
                                  "SetVosData"),
                      1);
        }
        try {
            stsd.Write();
            ADD_FAILURE() << "written";
        } catch (int code) {
            EXPECT_EQ(code, 71);
        }
        EXPECT_EQ(m_log.Count("error", "NULL hevc head !", "Write"), 1);
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
    mp4_prores_parameter_set_t set{streams::Forged<mp4_prores_format>(6)};
    stsd.SetProRes(&set);
    EXPECT_EQ(m_log.Count("error", "invalid prores format 6", "SetProRes"), 1);
    EXPECT_EQ(Entry(stsd).type, std::string(4, '\0'));
    set.format = MP4_PRORES_4444;
    stsd.SetProRes(&set);
    set.format = streams::Forged<mp4_prores_format>(-1);
    stsd.SetProRes(&set);
    EXPECT_EQ(Written(stsd)[20], 'a');
    EXPECT_EQ(Written(stsd)[23], 'h');
}

TEST_F(SampleDescription, VideoWithoutCodecIsABareEntry) {
    CMp4VideoStsdAtom stsd(&m_out);
    const Box& entry = Entry(stsd);
    EXPECT_EQ(entry.size, 86U);
    EXPECT_EQ(entry.type, std::string(4, '\0'));
}

TEST_F(SampleDescription, AudioInMp4Form) {
    CMp4AudioStsdAtom stsd(&m_out);
    stsd.SetSamplerate(48000);
    stsd.SetTrakId(0x10002);
    const uint8_t config[] = {0x11, 0x88};
    stsd.SetAAC(config, 2);
    const Box& entry = Entry(stsd);
    EXPECT_EQ(entry.size, 87U);
    EXPECT_EQ(entry.type, "mp4a");
    EXPECT_EQ(entry.Content(16, 20), Hex("0000000000000000 0002 0010 0000 0000 bb800000"));
    EXPECT_EQ(entry.At("esds").Content(8, 43),
              Hex("00000000 03 80808022 0002 00 04 80808014 40 15 000000 00000000 00000000"
                  "05 80808002 1188 06 80808001 02"));
}

TEST_F(SampleDescription, AudioInQuickTimeForm) {
    CMp4AudioStsdAtom stsd(&m_out);
    stsd.SetIsMp4File(false);
    stsd.SetSamplerate(96000);
    const uint8_t config[] = {0x11, 0x88};
    stsd.SetAAC(config, 2);
    const Box& entry = Entry(stsd);
    EXPECT_EQ(stsd.GetSize(), 159U);
    EXPECT_EQ(entry.size, 143U);
    EXPECT_EQ(entry.Content(16, 36),
              Hex("0001 0000 00000000 0002 0010 fffe 0000 00000000") + Bytes(16, 0));
    const Box& wave = entry.At("wave");
    EXPECT_EQ(wave.ChildTypes(), "frma mp4a esds " + std::string(4, '\0'));
    EXPECT_EQ(wave.Content(8, 24), Hex("0000000c 66726d61 6d703461 0000000c 6d703461 00000000"));
    EXPECT_EQ(wave.At("esds").size, 51U);
    EXPECT_EQ(wave.Content(83, 8), Hex("00000008 00000000"));
}

TEST_F(SampleDescription, AudioConfigurationsOfOtherLengths) {
    CMp4AudioStsdAtom none(&m_out);
    const Box& entry = Entry(none);
    EXPECT_EQ(entry.type, std::string(4, '\0'));
    CBufferIO out;
    out.Init(nullptr);
    CMp4EsdsAtom esds(&out);
    esds.Write();
    EXPECT_EQ(BytesOf(out).size(), 44U);
    EXPECT_EQ(BytesOf(out)[16], 27);  // ES descriptor without decoder-specific part
    const Bytes config = Hex("1188562e50");
    esds.SetVosData(config.data(), 5);
    out.Init(nullptr);
    esds.Write();
    const Bytes box = BytesOf(out);
    ASSERT_EQ(box.size(), 54U);
    EXPECT_EQ(esds.GetSize(), 54U);
    EXPECT_EQ(box[16], 37);
    EXPECT_EQ(box[24], 23);
    EXPECT_EQ(Bytes(box.begin() + 38, box.begin() + 48), Hex("05 80808005") + config);
}

TEST_F(SampleDescription, Captions) {
    CMp4SubtitleStsdAtom stsd(&m_out);
    stsd.SetCodec(MP4_SUBTITLE_CODEC_UNKNOWN);
    EXPECT_EQ(m_log.Count("error", "unknown subtitle codec 0", "SetCodec"), 1);
    EXPECT_EQ(Entry(stsd).type, std::string(4, '\0'));
    stsd.SetCodec(MP4_SUBTITLE_CODEC_CC608);
    EXPECT_EQ(Written(stsd)[21], '6');
    stsd.SetCodec(MP4_SUBTITLE_CODEC_CC708);
    EXPECT_EQ(Written(stsd), Hex("00000020 73747364 00000000 00000001 00000010 63373038"
                                 "000000000000 0001"));
}

TEST_F(SampleDescription, Timecode) {
    CMp4TMCDStsdAutom stsd(&m_out);
    EXPECT_EQ(Entry(stsd).Content(16, 20), Hex("00000000 00000000 00007530 000003e9 00 00 0000"));
    stsd.SetTimeScale(25);
    stsd.SetFrameDuration(1);
    stsd.SetFlags(3);
    stsd.SetNumOfFrames(25);
    const Bytes box = Written(stsd);
    EXPECT_EQ(Bytes(box.begin() + 32, box.end()),
              Hex("00000000 00000003 00000019 00000001 19 00 0000"));
}

}  // namespace
