#include "moof.h"

using kx_mp4::FragmentSample;

void CMp4TrafAtom::Set(const kx_mp4::FragmentTrack& track, int64_t baseDataOffset) {
    m_tfhd.Set(track.trackId, baseDataOffset);
    m_tfdt.SetDecodeTime(track.decodeTime);
    m_samples = &track.samples;
    m_base = baseDataOffset;
}

const FragmentSample* CMp4TrafAtom::EndOfRun(const FragmentSample* begin,
                                             const FragmentSample* end) {
    const FragmentSample* sample = begin + 1;
    while (sample != end && sample->offset == sample[-1].offset + sample[-1].size)
        ++sample;
    return sample;
}
