// A recorder with static storage that ends its recording in its destructor, after main: what the
// library keeps per thread, if anything, is gone by then. usage: static_recorder OUTPUT
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kx_mp4/Mp4Muxer.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

void Require(mp4_status_t status) {
    if (status == MP4_STATUS_SUCCESS) return;
    std::fprintf(stderr, "status %d\n", status);
    std::_Exit(EXIT_FAILURE);
}

class Recorder {
public:
    ~Recorder() {
        Write(1);
        Require(m_muxer.Close());
    }
    void Start(const std::string& path) {
        auto config = streams::FileConfig(MP4_FLAG_REPAIR_INFO);
        Require(m_muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config));
        const auto track = streams::H264Track();
        Require(m_muxer.SetVideoTrack(&track));
        Write(0);
    }

private:
    void Write(uint32_t number) {
        const Bytes picture = test_pattern::Picture(number);
        const uint64_t time = uint64_t{number} * 3000;
        Require(m_muxer.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()), time,
                                        time));
    }

    CMp4Muxer m_muxer;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return EXIT_FAILURE;
    static Recorder recorder;
    recorder.Start(argv[1]);
    return EXIT_SUCCESS;
}
