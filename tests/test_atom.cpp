// The size protocol that every box follows. That the boxes keep it shows in the recordings: a wrong
// prediction is a warning there.
#include <gtest/gtest.h>

#include "Atom.h"
#include "log_capture.h"
#include "movie_reader.h"

namespace {

/// A box of 12 bytes that predicts another size when told to.
class CMp4ProbeAtom : public CMp4Atom {
public:
    enum Pattern { kContainer, kLeaf, kHead };

    CMp4ProbeAtom(IBaseIO* pWriter, Pattern pattern, uint32_t predicted)
        : CMp4Atom(pWriter), m_pattern(pattern), m_predicted(predicted) {}

    void Write() override {
        const auto content = [this] { m_pWriter->WriteInt32(0xCCCCCCCC); };
        if (m_pattern == kContainer) WriteContainer("prob", content);
        if (m_pattern == kLeaf) WriteLeaf(*this);
        if (m_pattern == kHead)
            WriteHeadAndChildren(
                true, [](IBaseIO& out) { kx_mp4::PutBoxHeader(out, "prob"); }, content);
    }
    uint32_t GetSize() override { return m_predicted; }

    template <class Out>
    void Put(Out& out) const {
        kx_mp4::PutBoxHeader(out, "prob");
        out.WriteInt32(0xCCCCCCCC);
    }

private:
    Pattern m_pattern;
    uint32_t m_predicted;
};

TEST(Atom, PatchesTheTrueSizeAndWarnsOfAWrongPrediction) {
    for (const auto pattern :
         {CMp4ProbeAtom::kContainer, CMp4ProbeAtom::kLeaf, CMp4ProbeAtom::kHead}) {
        for (const uint32_t predicted : {12U, 24U}) {
            const LogCapture log;
            CBufferIO out;
            out.Init(nullptr);
            CMp4ProbeAtom(&out, pattern, predicted).Write();
            EXPECT_EQ(BytesOf(out), Hex("0000000c 70726f62 cccccccc"));
            EXPECT_EQ(out.Ftell(), 12U) << "the next sibling follows directly";
            ASSERT_EQ(log.Complaints().size(), predicted == 12 ? 0U : 1U);
            if (predicted == 12) continue;
            EXPECT_NE(log.Complaints()[0].find("CMp4ProbeAtomE size expect 24, actual:12"),
                      std::string::npos)
                << log.Complaints()[0];
        }
    }
}

TEST(Atom, WritesToAnotherWriterWhenToldTo) {
    CBufferIO first;
    CBufferIO second;
    first.Init(nullptr);
    second.Init(nullptr);
    CMp4ProbeAtom box(&first, CMp4ProbeAtom::kLeaf, 12);
    box.setWriter(&second);
    box.Write();
    EXPECT_EQ(first.GetSize(), 0U);
    EXPECT_EQ(second.GetSize(), 12U);
}

}  // namespace
