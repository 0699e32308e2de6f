// Any stream is refused with a reason, or its frames get the decode indexes 0, 1, 2 ... in turn and
// presentation indexes that are all different and have no gap.
//
// The first byte chooses the codec; what follows is an Annex-B stream, cut after each slice.
#include <algorithm>
#include <cstdlib>

#include "PictureOrder.h"
#include "VideoFrameParser.h"

namespace h264 = kx_mp4::h264;
namespace hevc = kx_mp4::hevc;

namespace {

using namespace kxmux;

void Require(bool condition) {
    if (!condition) std::abort();
}

bool IsSlice(const VIDEO_SLICE& nal, mp4_video_codec codec) {
    if (codec == MP4_MVC_HEVC) return ((nal.pbData[0] >> 1) & 0x3F) <= hevc::kNalVclLast;
    const uint8_t type = h264::NalUnitType(nal.pbData[0]);
    return type >= h264::kNalSlice && type <= h264::kNalIdrSlice;
}

class Checker {
public:
    explicit Checker(mp4_video_codec codec)
        : m_codec(codec), m_reader(PictureOrderReader::Create(codec)) {}

    void Run(const CVideoFrameParser& nals) {
        for (const VIDEO_SLICE& nal : nals) {
            if (nal.cbData <= 0) continue;
            if (!m_reader->Add(nal.pbData, static_cast<size_t>(nal.cbData))) {
                Require(!m_reader->Error().empty());
                break;
            }
            if (IsSlice(nal, m_codec) && !EndPicture()) break;
        }
        const bool complete = m_order.Finish();
        PopAll();
        if (complete) CheckPresentation();
    }

private:
    bool EndPicture() {
        PictureInfo info;
        if (!m_reader->End(&info)) {
            Require(!m_reader->Error().empty());
            return false;
        }
        if (!m_order.Push(info)) {
            Require(m_order.Error().compare(0, 6, "frame ") == 0);
            return false;
        }
        Require(m_order.Held() <= PresentationOrder::kMaxHeld);
        PopAll();
        return true;
    }

    void PopAll() {
        for (OrderedTimes times; m_order.Pop(&times);) {
            Require(times.dts == m_pts.size());
            m_pts.push_back(times.pts);
        }
    }

    void CheckPresentation() {
        Require(m_order.Held() == 0);
        std::sort(m_pts.begin(), m_pts.end());
        for (size_t i = 1; i < m_pts.size(); ++i)
            Require(m_pts[i] == m_pts[0] + i);
    }

    mp4_video_codec m_codec;
    std::unique_ptr<PictureOrderReader> m_reader;
    PresentationOrder m_order;
    std::vector<uint64_t> m_pts;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    CVideoFrameParser nals;
    nals.Parse(data + 1, static_cast<int>(size - 1));
    Checker(data[0] % 2 == 0 ? MP4_MVC_H264 : MP4_MVC_HEVC).Run(nals);
    return 0;
}
