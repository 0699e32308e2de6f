// Every box: what it predicts, what it writes and what its size field says agree, in every state.
#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

#include "log_capture.h"
#include "mdat.h"
#include "moov.h"
#include "movie_reader.h"
#include "streams.h"
// Boxes that no other box includes.
#include "ctts.h"
#include "fiel.h"
#include "free.h"
#include "ftyp.h"

namespace {

// Bring a box into its `round`-th state (from 1); boxes whose content never changes need nothing.

void Fill(CMp4Atom&, long) {}
template <class Box>
auto Fill(Box& box, int round) -> decltype(box.AddEntry(round), void()) {
    box.AddEntry(round * round);
}
template <class Box>
auto Fill(Box& box, int round) -> decltype(box.AddEntry(round, round), void()) {
    box.AddEntry(round * 2, round);
}
template <class Box>
auto Fill(Box& box, int round) -> decltype(box.AddChunk(round), void()) {
    box.AddChunk(round);
}
template <class Box>
auto Fill(Box& box, int round) -> decltype(box.AddSyncSample(round), void()) {
    box.AddSyncSample(round);
}
template <class Box>
auto Fill(Box& box, int round) -> decltype(box.SetVosData(nullptr, round), void()) {
    const uint8_t config[8] = {};
    box.SetVosData(config, round);
}
template <class Box>
auto Fill(Box& box, int round) -> decltype(box.OnFrame(40, round, round, round, true), void()) {
    box.OnFrame(40, round, round, round, true);
}
void Fill(CMp4FtypAtom& box, int) {
    box.SetQt(true);
}
void Fill(CMp4RefTrackTypeAtom& box, int round) {
    box.SetRefTrack(round);
}
void Fill(CMp4StscAtom& box, int round) {
    for (int i = 0; i < round; ++i)
        box.AddEntry(i == 0);
}
void Fill(CMp4KeysAtom& box, int) {
    box.AddKey("org.example.key", nullptr);
}
void Fill(CMp4IlstAtom& box, int round) {
    box.SetMetaData("title", "Test");
    box.SetMetaData(round, "raw", 3, MP4_META_DATA_TYPE_RAW);
}
void Fill(CMp4MetaAtom& box, int round) {
    box.SetIsQtff(round % 2 == 0);
    box.SetMetaData("title", "Test", 0, MP4_META_DATA_TYPE_STRING, nullptr);
}
void Fill(CMp4UdtaAtom& box, int round) {
    Fill(box.m_meta, 2 * round + 1);
}
void Fill(CMp4AvccAtom& box, int) {
    const auto track = streams::H264Track();
    box.SetVosData(&track.h264);
}
void Fill(CMp4HvccAtom& box, int) {
    const auto track = streams::HevcTrack();
    box.SetVosData(&track.hevc);
}
void Fill(CMp4VideoStsdAtom& box, int round) {
    const auto h264 = streams::H264Track();
    const auto hevc = streams::HevcTrack();
    const auto prores = streams::ProResTrack(MP4_PRORES_4444);
    if (round == 1) box.SetH264(&h264.h264);
    if (round == 2) box.SetHevc(&hevc.hevc);
    if (round == 3) box.SetProRes(&prores.prores);
}
void Fill(CMp4AudioStsdAtom& box, int round) {
    const uint8_t config[2] = {};
    box.SetAAC(config, 2);
    box.SetIsMp4File(round % 2 == 0);
}
void Fill(CMp4SubtitleStsdAtom& box, int) {
    box.SetCodec(MP4_SUBTITLE_CODEC_CC608);
}
void Fill(CMp4VideoStblAtom& box, int round) {
    const auto track = streams::H264Track();
    box.SetH264(&track.h264);
    box.OnFrame(40 + round, round * 7, round * 10, round * round, round != 2);
    box.AddSyncSample(round);
}
void Fill(CMp4TMCDStblAtom& box, int round) {
    box.OnTimeCode(40 + round, true);
}
void Fill(CMp4VideoTrakAtom& box, int round) {
    const auto track = streams::H264Track();
    box.SetTrakID(1);
    box.SetVideoInfo(&track);
    box.AfterWriteVideoFrame(40, round, round * 10, round * 10, true, true);
    box.AddTimeCodeReference(round);
}
void Fill(CMp4AudioTrakAtom& box, int round) {
    const auto track = streams::AacTrack();
    box.SetTrakID(1);
    box.SetAudioInfo(&track);
    box.AfterWriteAudioFrame(40, 4, round * 10, true);
}
void Fill(CMp4TCTrakAtom& box, int) {
    const auto track = streams::TimecodeTrack();
    box.SetTrakID(1);
    box.SetTimecodeTrackInfo(&track);
    box.AfterWriteTimeCode(40, true);
}
void Fill(CMp4SubtitleTrakAtom& box, int round) {
    const auto track = streams::CaptionTrack(MP4_SUBTITLE_CODEC_CC708);
    box.SetTrakID(1);
    box.SetSubtitleInfo(&track);
    box.AfterWriteFrame(40, 4, round * 10, true);
}
void Fill(CMp4MoovAtom& box, int round) {
    const auto video = streams::H264Track();
    const auto audio = streams::AacTrack();
    const auto captions = streams::CaptionTrack(MP4_SUBTITLE_CODEC_CC608);
    const auto timecode = streams::TimecodeTrack();
    if (round == 1) box.SetVideoTrack(&video);
    if (round == 2) box.SetAudioTrack(&audio);
    if (round == 2) box.SetSubtitleTrack(&captions);
    if (round == 3) box.SetTCMDTrack(&timecode);
    box.SetIsMp4File(round % 2 == 0);
    box.AfterWriteVideoFrame(40, 10, round * 10, round * 10, true);
    box.AfterWriteTimeCode(40);
    if (round > 1) box.AfterWriteAudioFrame(40, 10, round * 10);
    if (round > 1) box.AfterWriteSubtitleFrame(40, 10, round * 10);
}

/// Switches a box to its 64-bit form; false for a box without one.
template <class Box>
auto Use64BitTime(Box& box, int) -> decltype(box.SetUse64bitTime(), bool()) {
    box.SetUse64bitTime();
    return true;
}
template <class Box>
bool Use64BitTime(Box&, long) {
    return false;
}
template <class Box>
auto Use64BitSize(Box& box, int) -> decltype(box.SetUse64BitSize(), bool()) {
    box.SetUse64BitSize();
    return true;
}
template <class Box>
bool Use64BitSize(Box&, long) {
    return false;
}
bool Use64BitSize(CMp4MoovAtom& box, int) {
    box.SetUse64bitSize();
    return true;
}

template <class Box>
std::unique_ptr<Box> Make(IBaseIO* writer) {
    if constexpr (std::is_same_v<Box, CMp4MoovAtom>)
        return std::make_unique<Box>(writer, false, nullptr);
    else
        return std::make_unique<Box>(writer);
}

template <class Box>
class Boxes : public ::testing::Test {
protected:
    static constexpr bool kNeedsCodec =
        std::is_same_v<Box, CMp4AvccAtom> || std::is_same_v<Box, CMp4HvccAtom>;

    Boxes() { m_out.Init(nullptr); }

    /// Writes the box behind what is there already, and compares the three sizes.
    void CheckWritten(Box& box, const char* state) {
        const Bytes first = Write(box);
        const uint32_t predicted = box.GetSize();
        const Bytes second = Write(box);
        EXPECT_EQ(predicted, second.size()) << state;
        EXPECT_EQ(first, second) << state << ": writing twice gives the same";
        if (second.empty()) return;
        const MovieReader reader(second);
        EXPECT_EQ(reader.File().children.size(), 1U) << state;
        EXPECT_EQ(reader.File().children[0].size, second.size()) << state;
    }

    LogCapture m_log;
    CBufferIO m_out;

private:
    Bytes Write(Box& box) {
        const auto start = static_cast<int64_t>(m_out.GetSize());
        box.Write();
        EXPECT_EQ(m_out.Ftell(), m_out.GetSize()) << "the writer stands behind the box";
        const Bytes all = BytesOf(m_out);
        return Bytes(all.begin() + start, all.end());
    }
};

using AllBoxes = ::testing::Types<
    CMp4AudioHdlrAtom, CMp4AudioMdiaAtom, CMp4AudioMinfAtom, CMp4AudioStblAtom, CMp4AudioStsdAtom,
    CMp4AudioTrakAtom, CMp4AvccAtom, CMp4BaseMinfAtom, CMp4Co64Atom, CMp4CttsAtom, CMp4DinfAtom,
    CMp4DrefAtom, CMp4EdtsAtom, CMp4ElstAtom, CMp4EsdsAtom, CMp4FielAtom, CMp4FreeAtom,
    CMp4FtypAtom, CMp4GmhdAtom, CMp4GminAtom, CMp4HvccAtom, CMp4IlstAtom, CMp4KeysAtom,
    CMp4MdhdAtom, CMp4MetaAtom, CMp4MoovAtom, CMp4MvhdAtom, CMp4NmhdAtom, CMp4RefTrackTypeAtom,
    CMp4RefTrakAtom, CMp4SmhdAtom, CMp4StcoAtom, CMp4StscAtom, CMp4StssAtom, CMp4StszAtom,
    CMp4SttsAtom, CMp4SubtHdlrAtom, CMp4SubtitleHdlrAtom, CMp4SubtitleMdiaAtom,
    CMp4SubtitleMinfAtom, CMp4SubtitleStblAtom, CMp4SubtitleStsdAtom, CMp4SubtitleTrakAtom,
    CMp4TCMdiaAtom, CMp4TCTrakAtom, CMp4TMCDStblAtom, CMp4TMCDStsdAutom, CMp4TMCDUdatAtom,
    CMp4TcmiAtom, CMp4TextAtom, CMp4TkhdAtom, CMp4UdtaAtom, CMp4UrlHdlrAtom, CMp4VideoHdlrAtom,
    CMp4VideoMdiaAtom, CMp4VideoMinfAtom, CMp4VideoStblAtom, CMp4VideoStsdAtom, CMp4VideoTrakAtom,
    CMp4VmhdAtom, CMp4WaveAtom>;
TYPED_TEST_SUITE(Boxes, AllBoxes, );  // the comma: clang -Wpedantic wants an argument for the "..."

TYPED_TEST(Boxes, PredictWhatTheyWrite) {
    for (const bool wide : {false, true}) {
        const auto box = Make<TypeParam>(&this->m_out);
        const bool has64BitTime = wide && Use64BitTime(*box, 0);
        const bool has64BitSize = wide && Use64BitSize(*box, 0);
        if (wide && !has64BitTime && !has64BitSize) break;
        if (!this->kNeedsCodec) this->CheckWritten(*box, "empty");
        for (int round = 1; round <= 3; ++round) {
            Fill(*box, round);
            this->CheckWritten(*box, round == 1 ? "filled" : "changed");
        }
    }
    for (const std::string& line : this->m_log.Complaints())
        EXPECT_EQ(line.find(" size expect ") + line.find("calc size("), 2 * std::string::npos)
            << line;
}

TEST(FileBoxes, MediaDataGetsItsSizeAtTheEnd) {
    LogCapture log;
    const struct {
        bool wide;
        std::string placeholder;
        std::string updated;
        std::string finished;
    } kTable[] = {
        {false, "00000008 6d646174", "000003f0 6d646174", "000003f8 6d646174"},
        {true, "00000001 6d646174 0000000000000001", "00000001 6d646174 00000000000003f8",
         "00000001 6d646174 0000000000000400"},
    };
    for (const auto& row : kTable) {
        CBufferIO out;
        out.Init(nullptr);
        CMp4MdatAtom mdat(&out, row.wide);
        mdat.Write();
        EXPECT_EQ(BytesOf(out), Hex(row.placeholder));
        const Bytes media(1000, 0xAA);
        out.WriteBuf(media.data(), 1000);
        mdat.Update();
        EXPECT_EQ(BytesOf(out), Hex(row.updated) + media);
        EXPECT_EQ(out.Ftell(), out.GetSize());
        const std::string size = std::to_string(out.GetSize());
        EXPECT_EQ(log.Count("info", "update mdat size to " + size, "Update"), 1);
        out.WriteInt64(0);
        mdat.Finish(L"");
        EXPECT_EQ(BytesOf(out), Hex(row.finished) + media + Bytes(8, 0));
        EXPECT_EQ(out.Ftell(), out.GetSize());
    }
    EXPECT_TRUE(log.Complaints().empty()) << "no size was predicted, so none is compared";
}

}  // namespace
