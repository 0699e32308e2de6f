// A movie box that lies in front of the media data and is brought up to date in place, the policy
// behind it, and a movie box that is handed over in one piece.
#include <gtest/gtest.h>

#include "ReservedHeader.h"
#include "log_capture.h"
#include "mdat.h"
#include "moov.h"
#include "movie_reader.h"
#include "streams.h"

namespace {

using kx_mp4::ReservedHeader;

/// A file in memory that says how large it is.
class MemoryFile : public CBufferIO {
public:
    MemoryFile() { Init(nullptr); }
    uint64_t GetFileSize() override { return GetSize(); }
};

TEST(ReservedHeader, AsksForWhatIsWrittenAtOnce) {
    LogCapture log;
    const ReservedHeader off;
    const ReservedHeader on(25);
    EXPECT_FALSE(off.IsOn());
    EXPECT_TRUE(on.IsOn());
    EXPECT_EQ(off.CheckDuration(0, "f"), MP4_STATUS_SUCCESS);
    EXPECT_EQ(off.CheckConfiguration(false, "video", "f"), MP4_STATUS_SUCCESS);
    EXPECT_EQ(off.CheckCaptions("f"), MP4_STATUS_SUCCESS);
    EXPECT_EQ(on.CheckDuration(40, "f"), MP4_STATUS_SUCCESS);
    EXPECT_EQ(on.CheckConfiguration(true, "video", "f"), MP4_STATUS_SUCCESS);
    EXPECT_TRUE(log.Complaints().empty());
    EXPECT_EQ(on.CheckDuration(0, "f"), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(on.CheckConfiguration(false, "audio", "f"), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(on.CheckCaptions("f"), MP4_STATUS_UNSUPPORTED);
    const std::vector<std::string> expected = {"error f: please set frame_duration in safe mode",
                                               "error f: please provide audio codec data in safe "
                                               "mode",
                                               "error f: subtitle not supported in safe mode"};
    EXPECT_EQ(log.Complaints(), expected);
}

TEST(ReservedHeader, RewritesDurationsAndTheMediaSizeWhenTheirTimeHasCome) {
    for (const bool wide : {false, true}) {
        LogCapture log;
        MemoryFile file;
        file.WriteInt32(8);
        file.WriteTag("free");
        CMp4MoovAtom moov(&file, false, nullptr);
        moov.Update();
        EXPECT_GE(log.Count("error", "logic error", "Update"), 1) << "nothing was written yet";
        if (wide) moov.SetUse64bitTime();
        const auto video = streams::H264Track();
        const auto audio = streams::AacTrack();
        moov.SetVideoTrack(&video);
        moov.SetAudioTrack(&audio);
        moov.AfterWriteVideoFrame(48, 10, 0, 0, true);
        moov.AfterWriteAudioFrame(48, 10, 0);
        moov.Write();
        CMp4MdatAtom mdat(&file, wide);
        const uint64_t at = file.Ftell();
        mdat.Write();
        ReservedHeader header(1);
        const auto duration = [&](const char* box) {
            Bytes boxes = BytesOf(file);
            boxes.resize(at);
            return MovieReader(boxes).At(box).Uint(wide ? 32 : 24, wide ? 8 : 4);
        };
        uint64_t rewritten = duration("moov/mvhd");
        const auto frame = [&](int number, bool reachesTheFile) {
            const uint64_t before = header.SizeBeforeFrame(file);
            moov.AfterWriteVideoFrame(48, 10, number * 90000, number * 90000, true);
            moov.AfterWriteAudioFrame(48, 10, number * 48000);
            if (reachesTheFile) file.WriteInt64(0);
            header.AfterVideoFrame(file, before, moov, mdat);
            const bool was = duration("moov/mvhd") != rewritten;
            rewritten = duration("moov/mvhd");
            EXPECT_EQ(file.Ftell(), file.GetSize()) << "the writer is back where it stood";
            return was;
        };
        EXPECT_FALSE(frame(1, true));
        EXPECT_FALSE(frame(2, false)) << "its bytes have not reached the file";
        EXPECT_TRUE(frame(3, true));
        EXPECT_EQ(rewritten, 3033U);
        EXPECT_EQ(duration("moov/trak[0]/mdia/mdhd"), 3 * 90000U + 3000);
        EXPECT_EQ(duration("moov/trak[1]/mdia/mdhd"), 3 * 48000U + 1024);
        const Bytes box = BytesOf(file);
        const Bytes head(box.begin() + static_cast<ptrdiff_t>(at), box.end());
        EXPECT_EQ(head, Hex(wide ? "00000001 6d646174 0000000000000020" : "00000018 6d646174") +
                            Bytes(16, 0));
        EXPECT_FALSE(frame(4, true));
        EXPECT_TRUE(frame(5, true));
        header.Restart();
        EXPECT_FALSE(frame(6, true));
        EXPECT_TRUE(frame(7, true));
    }
}

TEST(MovieBox, FastWriteHandsOverOnePiece) {
    MemoryFile whole;
    MemoryFile file;
    file.WriteInt64(0);
    CBufferIO header;
    CMp4MoovAtom fast(&header, true, &file);
    CMp4MoovAtom plain(&whole, false, nullptr);
    const auto video = streams::H264Track();
    for (CMp4MoovAtom* box : {&fast, &plain}) {
        box->SetVideoTrack(&video);
        box->AfterWriteVideoFrame(40, 10, 0, 0, true);
        box->Write();
    }
    EXPECT_EQ(BytesOf(file), Bytes(8, 0) + BytesOf(whole));
}

}  // namespace
